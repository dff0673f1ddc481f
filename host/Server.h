// Runs a server command over a page: the page goes to the command's standard
// input, its standard output is the server's answer.
#ifndef QZHOST_SERVER_H
#define QZHOST_SERVER_H

#include <string>
#include <string_view>

namespace qzhost {

// What one run of a server gave back.
struct ServerRun {
  int exitStatus = -1;  // the exit status, or -1 when a signal ended it
  int signal = 0;       // the signal that ended it, or 0
  bool timedOut = false;       // the time limit ended it (signal then tells how)
  bool tooMuchOutput = false;  // it wrote more than its limit allowed and was ended (output then holds the limit)
  bool stoppedLeftovers = false;  // processes it left running in its group were ended
  std::string output;   // everything it wrote to standard output
  std::string errors;   // the tail of what it wrote to standard error (at most kErrorTail bytes)
  size_t errorBytes = 0;  // how much it wrote to standard error in all
  bool Succeeded() const { return exitStatus == 0 && !timedOut && !tooMuchOutput; }
};

constexpr size_t kErrorTail = 64 * 1024;

// How long a server may run, and how much it may write.
struct ServerLimits {
  double timeoutSeconds = 0;  // 0: no limit
  double graceSeconds = 1;    // between SIGTERM and SIGKILL
  size_t maxOutputBytes = 0;  // of standard output; 0: no limit
};

// Runs command with /bin/sh -c in the given folder, in a process group of
// its own, writing input to its standard input (closed after the last byte)
// while reading its standard output and error, so that a server which
// answers before it has read everything cannot stall the exchange. A server
// that stops reading early does not fail the run by itself; its exit status
// tells.
//
// The run ends when the server's own process has exited: what it wrote is
// read to the end, and whatever it left running in its group (a background
// child holding the output open) is ended, not waited for. When the time
// limit passes first, the whole group gets SIGTERM, then SIGKILL after the
// grace, and timedOut is set. A server whose standard output grows past
// maxOutputBytes is ended the same way at once, with tooMuchOutput set: held
// in memory, a server that never stops writing (`yes`) would exhaust it
// long before any time limit. While it runs, the group is registered for the
// interrupt handlers (Cleanup.h).
//
// Returns false only when the command could not be started (the message says
// why); a command that ran and failed returns true with its status.
bool RunServer(const std::string& command, const std::string& folder, std::string_view input, ServerRun* run,
               std::string* error, const ServerLimits& limits = {});

// A server started before its input is ready, so that its start-up
// overlaps the host's own work (labelling the page). Between StartServer and
// FinishServer it waits for its standard input; a start must be followed by
// exactly one FinishServer or AbandonServer.
struct ServerProcess {
  int toServer = -1, fromServer = -1, errFromServer = -1;  // the parent's pipe ends; -1 once closed
  int pidFd = -1;   // readable once the server has exited; -1: poll by ticks
  int pid = -1;     // the server's process, also its group
  bool exited = false;  // the server has been reaped, its status in status
  int status = 0;
  ServerLimits limits;
};

// Starts command as RunServer does; false, with nothing left running, when
// it cannot be started.
bool StartServer(const std::string& command, const std::string& folder, ServerProcess* server, std::string* error,
                 const ServerLimits& limits = {});

// Gives the started server its input and runs it to the end as RunServer
// does; the time limit counts from here.
void FinishServer(ServerProcess* server, std::string_view input, ServerRun* run);

// Ends a started server that will get no input: its whole group is ended
// and reaped.
void AbandonServer(ServerProcess* server);

// The last lines of a server's standard error, at most maxBytes long, for a
// message; whole lines where possible.
std::string ErrorTail(std::string_view errors, size_t maxBytes = 2000);

}  // namespace qzhost

#endif
