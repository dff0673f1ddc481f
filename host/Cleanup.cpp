// Interruption: the registry of temporary files and of the server's process
// group, and the handler that clears both up.
//
// Rules local to this file: the handler reads only the fixed slots below,
// and a slot's path is complete before its flag says it is in use.
#include "Cleanup.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace qzhost {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr int kTempSlots = 4;
constexpr size_t kPathRoom = 4096;

struct TempSlot {
  volatile sig_atomic_t bUsed;
  char path[kPathRoom];
};
TempSlot sTemps[kTempSlots];
volatile pid_t sServerGroup = 0;
bool sIgnoredAtStart[3] = {false, false, false};

double Now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void Nap() {
  struct timespec ts = {0, 5 * 1000 * 1000};
  nanosleep(&ts, nullptr);
}

// Reaps every member of the group that is a child of this process.
void ReapGroup(pid_t group, pid_t leader, int* leaderStatus, bool* leaderReaped) {
  for (;;) {
    int status = 0;
    pid_t done = waitpid(-group, &status, WNOHANG);
    if (done <= 0) return;
    if (done == leader) {
      *leaderStatus = status;
      *leaderReaped = true;
    }
  }
}

bool GroupIsEmpty(pid_t group) { return kill(-group, 0) != 0 && errno == ESRCH; }

void OnInterrupt(int sig) {
  pid_t group = sServerGroup;
  if (group > 0) {
    int status = 0;
    bool reaped = false;
    EndProcessGroup(group, group, kGraceSeconds, &status, &reaped);
  }
  for (TempSlot& slot : sTemps)
    if (slot.bUsed) unlink(slot.path);
  _exit(128 + sig);
}

sigset_t InterruptSet() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : kSignals) sigaddset(&set, sig);
  return set;
}

}  // namespace

void InstallInterruptHandlers() {
  struct sigaction action = {};
  action.sa_handler = OnInterrupt;
  action.sa_mask = InterruptSet();
  for (int i = 0; i < 3; ++i) {
    struct sigaction old = {};
    sigaction(kSignals[i], nullptr, &old);
    sIgnoredAtStart[i] = old.sa_handler == SIG_IGN;
    if (!sIgnoredAtStart[i]) sigaction(kSignals[i], &action, nullptr);
  }
}

void RestoreInterruptDefaults() {
  for (int i = 0; i < 3; ++i) signal(kSignals[i], sIgnoredAtStart[i] ? SIG_IGN : SIG_DFL);
  sigset_t set = InterruptSet();
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

void BlockInterrupts() {
  sigset_t set = InterruptSet();
  sigprocmask(SIG_BLOCK, &set, nullptr);
}

void UnblockInterrupts() {
  sigset_t set = InterruptSet();
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

bool RegisterTempFile(const char* path) {
  size_t n = strlen(path);
  if (n >= kPathRoom) return false;
  for (TempSlot& slot : sTemps) {
    if (slot.bUsed) continue;
    memcpy(slot.path, path, n + 1);
    slot.bUsed = 1;
    return true;
  }
  return false;
}

void ForgetTempFile(const char* path) {
  for (TempSlot& slot : sTemps)
    if (slot.bUsed && strcmp(slot.path, path) == 0) slot.bUsed = 0;
}

void RegisterServerGroup(pid_t group) { sServerGroup = group; }

void ForgetServerGroup() { sServerGroup = 0; }

void EndProcessGroup(pid_t group, pid_t leader, double graceSeconds, int* leaderStatus, bool* leaderReaped) {
  kill(-group, SIGTERM);
  kill(-group, SIGCONT);
  double deadline = Now() + graceSeconds;
  for (;;) {
    ReapGroup(group, leader, leaderStatus, leaderReaped);
    if (GroupIsEmpty(group)) return;
    if (Now() >= deadline) break;
    Nap();
  }
  kill(-group, SIGKILL);
  // SIGKILL cannot be caught: what is left goes at once, save members that
  // are another process's children, which that process must reap.
  for (int i = 0; i < 200; ++i) {
    ReapGroup(group, leader, leaderStatus, leaderReaped);
    if (GroupIsEmpty(group)) return;
    Nap();
  }
}

}  // namespace qzhost
