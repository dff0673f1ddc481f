// Interruption: the registry of temporary files and of the server's process
// group, and the handler that clears both up.
//
// Rules local to this file: the handler reads only the fixed slots below,
// and a slot's path is complete before its flag says it is in use.
#include "Cleanup.h"

#include <errno.h>
#include <fcntl.h>
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

// Reads this process's children from /proc into pids (at most max); how
// many were read.
int ListChildren(pid_t* pids, int max) {
  char path[64] = "/proc/self/task/";
  char digits[16];
  int nDigits = 0;
  for (pid_t self = getpid(); self > 0 && nDigits < 16; self /= 10) digits[nDigits++] = static_cast<char>('0' + self % 10);
  size_t at = strlen(path);
  while (nDigits > 0) path[at++] = digits[--nDigits];
  memcpy(path + at, "/children", 10);
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char text[4096];
  ssize_t got = read(fd, text, sizeof text - 1);
  close(fd);
  int n = 0;
  pid_t pid = 0;
  for (ssize_t i = 0; i < got && n < max; ++i) {
    if (text[i] >= '0' && text[i] <= '9') {
      pid = pid * 10 + (text[i] - '0');
    } else if (pid > 0) {
      pids[n++] = pid;
      pid = 0;
    }
  }
  if (pid > 0 && n < max) pids[n++] = pid;
  return n;
}

// Sends sig to each child's own process group when it has left ours, else
// to the child alone.
void SignalChildren(const pid_t* pids, int n, int sig) {
  for (int i = 0; i < n; ++i) {
    pid_t group = getpgid(pids[i]);
    if (group > 0 && group != getpgrp()) kill(-group, sig);
    kill(pids[i], sig);
  }
}

void ReapAnyChild() {
  int status = 0;
  while (waitpid(-1, &status, WNOHANG) > 0) {
  }
}

void OnInterrupt(int sig) {
  pid_t group = sServerGroup;
  if (group > 0) {
    int status = 0;
    bool reaped = false;
    EndProcessGroup(group, group, kGraceSeconds, &status, &reaped);
  }
  EndAdoptedChildren(kGraceSeconds);
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

bool EndAdoptedChildren(double graceSeconds) {
  constexpr int kMax = 256;
  pid_t pids[kMax];
  bool found = false;
  // Each round ends the children found; their own children, orphaned in
  // turn, come to this process and are found in the next round.
  for (int round = 0; round < 8; ++round) {
    ReapAnyChild();
    int n = ListChildren(pids, kMax);
    if (n == 0) return found;
    found = true;
    SignalChildren(pids, n, SIGTERM);
    SignalChildren(pids, n, SIGCONT);
    double deadline = Now() + graceSeconds;
    while (Now() < deadline) {
      ReapAnyChild();
      if (ListChildren(pids, kMax) == 0) break;
      Nap();
    }
    n = ListChildren(pids, kMax);
    SignalChildren(pids, n, SIGKILL);
    for (int i = 0; i < 200 && ListChildren(pids, kMax) > 0; ++i) {
      ReapAnyChild();
      Nap();
    }
  }
  return found;
}

}  // namespace qzhost
