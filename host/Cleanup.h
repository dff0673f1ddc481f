// What the command must undo when it is interrupted, and the signal handlers
// that undo it: temporary output files are removed and a running server's
// whole process group is ended before the command exits with 128 + the
// signal's number.
//
// Everything here may run inside a signal handler, so it keeps to
// async-signal-safe calls and to fixed storage set up before it is needed.
#ifndef QZHOST_CLEANUP_H
#define QZHOST_CLEANUP_H

#include <sys/types.h>

namespace qzhost {

// How long a process group gets between SIGTERM and SIGKILL.
constexpr double kGraceSeconds = 1.0;

// Installs handlers for SIGINT, SIGTERM and SIGHUP that end the registered
// server group, remove the registered temporary files and exit with
// 128 + the signal. A signal that was ignored when the command started (as
// nohup leaves SIGHUP) stays ignored.
void InstallInterruptHandlers();

// Sets, in a child about to exec a server, the three signals back to what
// they were when the command started.
void RestoreInterruptDefaults();

// Registers a temporary file to remove on interruption; false when the path
// does not fit or every slot is taken (the caller then must not create it).
// Signals are held off between the caller's BlockInterrupts and
// UnblockInterrupts, so that creating a file and registering it, or renaming
// it and forgetting it, happen as one step.
bool RegisterTempFile(const char* path);
void ForgetTempFile(const char* path);
void BlockInterrupts();
void UnblockInterrupts();

// The process group of the running server (0: none), ended on interruption.
void RegisterServerGroup(pid_t group);
void ForgetServerGroup();

// Ends the process group: SIGTERM (and SIGCONT, so that stopped members see
// it), then SIGKILL to whatever is left after graceSeconds, reaping every
// member that is a child of this process. When leader is one of them and is
// reaped here, its wait status goes to *leaderStatus and *leaderReaped is
// set. Returns once the group is empty, or shortly after the SIGKILL.
// Async-signal-safe.
void EndProcessGroup(pid_t group, pid_t leader, double graceSeconds, int* leaderStatus, bool* leaderReaped);

// Ends the processes a server left outside its group (a daemon made with
// setsid), which come to this process as orphans once their parents have
// exited (the command is their subreaper): each gets SIGTERM, its group too
// when it leads one, then SIGKILL after graceSeconds, and is reaped. Call it
// only once the server itself has been reaped: every child of this process
// is taken for such an orphan. True when there were any. Async-signal-safe.
bool EndAdoptedChildren(double graceSeconds);

}  // namespace qzhost

#endif
