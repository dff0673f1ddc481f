// Server runs: fork and exec with three pipes, driven by one poll loop that
// also watches the server's own process and the time limit.
#include "Server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Cleanup.h"

namespace qzhost {
namespace {

void CloseIf(int* fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

// Appends to the kept tail of standard error, dropping the oldest bytes once
// it holds twice the tail, so a chatty server costs bounded memory.
void KeepTail(std::string* errors, const char* data, size_t n) {
  errors->append(data, n);
  if (errors->size() > 2 * kErrorTail) errors->erase(0, errors->size() - kErrorTail);
}

double Now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// In the child: a process group of its own, the signals as the command found
// them, an end with the command should it die without ending the group
// (SIGKILL), the pipes on 0, 1 and 2, the folder, then the shell. Only
// async-signal-safe calls, since the parent may have threads.
[[noreturn]] void ExecChild(const char* command, const char* folder, pid_t parent, int in, int out, int err) {
  setpgid(0, 0);
  RestoreInterruptDefaults();
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);
  signal(SIGPIPE, SIG_DFL);
  if (dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(127);
  if (chdir(folder) != 0) {
    const char* msg = "qztranslate: cannot enter the page's folder\n";
    ssize_t ignored = write(2, msg, strlen(msg));
    (void)ignored;
    _exit(127);
  }
  execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
  _exit(127);
}

// The parent's ends of the three pipes and the child.
using Exchange = ServerProcess;

// SIGPIPE as it was before the first server started; servers run one at a
// time.
struct sigaction gSavedPipe = {};

// Pipes this large hold a whole page of a few hundred kilobytes, so the
// exchange with the server takes few rounds of waking either side. A
// system that refuses the size keeps its own.
constexpr int kPipeBytes = 1 << 20;

// Makes the three pipes, each end closed on exec, and ignores SIGPIPE so
// that writing to a server that has closed its input gives EPIPE here
// instead of killing the host (the child gets the default back before
// exec). On failure nothing is left open and the message says why.
bool SetUp(int inPipe[2], int outPipe[2], int errPipe[2], std::string* error) {
  // The pipes must not land on 0, 1 or 2, where the child's dup2 calls
  // would trip over them: a host started with one of those closed gets it
  // opened on /dev/null first.
  for (int fd = 0; fd <= 2; ++fd)
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", O_RDWR);
  int* pipes[3] = {inPipe, outPipe, errPipe};
  for (int made = 0; made < 3; ++made) {
    if (pipe2(pipes[made], O_CLOEXEC) == 0) continue;
    *error = std::string("cannot make a pipe: ") + std::strerror(errno);
    for (int k = 0; k < made; ++k) {
      close(pipes[k][0]);
      close(pipes[k][1]);
    }
    return false;
  }
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &gSavedPipe);
  // Orphans of the server (its background children, once it has exited)
  // come to this process, which can then reap them when it ends the group.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  return true;
}

// Forks the child onto the pipes and keeps the parent's ends in ex. On
// failure every pipe is closed, SIGPIPE is restored and the message says
// why.
bool Spawn(const std::string& command, const std::string& folder, int inPipe[2], int outPipe[2], int errPipe[2],
           Exchange* ex, std::string* error) {
  // Held off until the group is registered, so that an interruption always
  // finds the server it must end; the child lets them through again.
  BlockInterrupts();
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid == 0) ExecChild(command.c_str(), folder.c_str(), parent, inPipe[0], outPipe[1], errPipe[1]);
  int forkErr = errno;
  if (pid > 0) {
    // Set here too, so that the group exists before anything signals it.
    setpgid(pid, pid);
    RegisterServerGroup(pid);
  }
  UnblockInterrupts();
  close(inPipe[0]);
  close(outPipe[1]);
  close(errPipe[1]);
  ex->toServer = inPipe[1];
  ex->fromServer = outPipe[0];
  ex->errFromServer = errPipe[0];
  if (pid < 0) {
    CloseIf(&ex->toServer);
    CloseIf(&ex->fromServer);
    CloseIf(&ex->errFromServer);
    sigaction(SIGPIPE, &gSavedPipe, nullptr);
    *error = std::string("cannot start the server: ") + std::strerror(forkErr);
    return false;
  }
  ex->pid = pid;
  ex->pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  fcntl(ex->toServer, F_SETFL, fcntl(ex->toServer, F_GETFL) | O_NONBLOCK);
  fcntl(ex->toServer, F_SETPIPE_SZ, kPipeBytes);
  fcntl(ex->fromServer, F_SETPIPE_SZ, kPipeBytes);
  return true;
}

// Keeps what the server wrote: all of its output, the tail of its errors.
void TakeOutput(const char* chunk, size_t n, bool isError, ServerRun* run) {
  if (!isError) {
    run->output.append(chunk, n);
    return;
  }
  KeepTail(&run->errors, chunk, n);
  run->errorBytes += n;
}

// One read from a server's output; closes it at its end or on an error.
void ReadSome(int* fd, bool isError, ServerRun* run) {
  char chunk[65536];
  ssize_t got = read(*fd, chunk, sizeof chunk);
  if (got > 0) TakeOutput(chunk, static_cast<size_t>(got), isError, run);
  else if (got == 0 || errno != EINTR) CloseIf(fd);
}

// Reads what an exited server left in the pipe, then closes it. Only the
// bytes there now are read: a background child that goes on writing must
// not keep the run going.
void Drain(int* fd, bool isError, ServerRun* run) {
  int pending = 0;
  if (*fd >= 0 && ioctl(*fd, FIONREAD, &pending) == 0) {
    char chunk[65536];
    while (pending > 0) {
      ssize_t got = read(*fd, chunk, std::min(sizeof chunk, static_cast<size_t>(pending)));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      TakeOutput(chunk, static_cast<size_t>(got), isError, run);
      pending -= static_cast<int>(got);
    }
  }
  CloseIf(fd);
}

// Reaps the server when it has exited; true once it has.
bool CheckExited(Exchange* ex) {
  if (ex->exited) return true;
  pid_t done;
  while ((done = waitpid(ex->pid, &ex->status, WNOHANG)) < 0 && errno == EINTR) {
  }
  ex->exited = done == ex->pid;
  return ex->exited;
}

// True when the server has written more than its limit allows.
bool TooMuch(const Exchange* ex, const ServerRun* run) {
  return ex->limits.maxOutputBytes > 0 && run->output.size() > ex->limits.maxOutputBytes;
}

// Writes input while reading both outputs until the server's own process has
// exited, the deadline (0: none) has passed or the output has outgrown its
// limit; closes the pipes either way. Returns false when the deadline or the
// limit ended it (run->tooMuchOutput tells which).
bool Pump(std::string_view input, double deadline, Exchange* ex, ServerRun* run) {
  size_t written = 0;
  bool inTime = true;
  while (!CheckExited(ex)) {
    double left = deadline > 0 ? deadline - Now() : -1;
    if (deadline > 0 && left <= 0) {
      inTime = false;
      break;
    }
    if (TooMuch(ex, run)) {
      run->tooMuchOutput = true;
      inTime = false;
      break;
    }
    struct pollfd fds[4];
    int nfds = 0, inIdx = -1, outIdx = -1, errIdx = -1;
    if (ex->toServer >= 0) {
      inIdx = nfds;
      fds[nfds++] = {ex->toServer, POLLOUT, 0};
    }
    if (ex->fromServer >= 0) {
      outIdx = nfds;
      fds[nfds++] = {ex->fromServer, POLLIN, 0};
    }
    if (ex->errFromServer >= 0) {
      errIdx = nfds;
      fds[nfds++] = {ex->errFromServer, POLLIN, 0};
    }
    if (ex->pidFd >= 0) fds[nfds++] = {ex->pidFd, POLLIN, 0};
    // Without a process descriptor the exit is noticed by looking every 20 ms.
    int waitMs = left < 0 ? -1 : static_cast<int>(left * 1000) + 1;
    if (ex->pidFd < 0) waitMs = waitMs < 0 ? 20 : std::min(waitMs, 20);
    if (poll(fds, static_cast<nfds_t>(nfds), waitMs) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (inIdx >= 0 && fds[inIdx].revents) {
      ssize_t put = write(ex->toServer, input.data() + written, input.size() - written);
      if (put > 0) written += static_cast<size_t>(put);
      bool stalled = put < 0 && (errno == EAGAIN || errno == EINTR);
      if (written == input.size() || (put < 0 && !stalled)) CloseIf(&ex->toServer);
    }
    if (outIdx >= 0 && fds[outIdx].revents) ReadSome(&ex->fromServer, false, run);
    if (errIdx >= 0 && fds[errIdx].revents) ReadSome(&ex->errFromServer, true, run);
  }
  CloseIf(&ex->toServer);
  if (inTime) {
    Drain(&ex->fromServer, false, run);
    Drain(&ex->errFromServer, true, run);
    // What an exited server left in the pipe counts as well.
    run->tooMuchOutput = TooMuch(ex, run);
  }
  CloseIf(&ex->fromServer);
  CloseIf(&ex->errFromServer);
  return inTime;
}

// Ends what is left of the server's group (all of it after a time limit,
// background children after a normal exit), reaps the server, restores
// SIGPIPE and fills in how the run ended.
void Reap(Exchange* ex, bool inTime, double graceSeconds, ServerRun* run) {
  bool leftovers = kill(-ex->pid, 0) == 0;
  if (!inTime || leftovers) EndProcessGroup(ex->pid, ex->pid, graceSeconds, &ex->status, &ex->exited);
  run->timedOut = !inTime && !run->tooMuchOutput;
  run->stoppedLeftovers = inTime && leftovers && ex->exited;
  while (!ex->exited) {
    pid_t done = waitpid(ex->pid, &ex->status, 0);
    ex->exited = done == ex->pid || (done < 0 && errno != EINTR);
  }
  if (EndAdoptedChildren(graceSeconds) && inTime) run->stoppedLeftovers = true;
  ForgetServerGroup();
  if (ex->pidFd >= 0) close(ex->pidFd);
  sigaction(SIGPIPE, &gSavedPipe, nullptr);
  if (run->errors.size() > kErrorTail) run->errors.erase(0, run->errors.size() - kErrorTail);
  if (run->tooMuchOutput) run->output.resize(ex->limits.maxOutputBytes);
  if (WIFEXITED(ex->status)) {
    run->exitStatus = WEXITSTATUS(ex->status);
  } else if (WIFSIGNALED(ex->status)) {
    run->signal = WTERMSIG(ex->status);
  }
}

}  // namespace

bool StartServer(const std::string& command, const std::string& folder, ServerProcess* server, std::string* error,
                 const ServerLimits& limits) {
  *server = ServerProcess();
  server->limits = limits;
  int inPipe[2], outPipe[2], errPipe[2];
  if (!SetUp(inPipe, outPipe, errPipe, error)) return false;
  return Spawn(command, folder, inPipe, outPipe, errPipe, server, error);
}

void FinishServer(ServerProcess* server, std::string_view input, ServerRun* run) {
  *run = ServerRun();
  if (input.empty()) CloseIf(&server->toServer);
  double deadline = server->limits.timeoutSeconds > 0 ? Now() + server->limits.timeoutSeconds : 0;
  bool inTime = Pump(input, deadline, server, run);
  Reap(server, inTime, server->limits.graceSeconds, run);
}

void AbandonServer(ServerProcess* server) {
  CloseIf(&server->toServer);
  CloseIf(&server->fromServer);
  CloseIf(&server->errFromServer);
  if (!server->exited) EndProcessGroup(server->pid, server->pid, server->limits.graceSeconds, &server->status,
                                       &server->exited);
  while (!server->exited) {
    pid_t done = waitpid(server->pid, &server->status, 0);
    server->exited = done == server->pid || (done < 0 && errno != EINTR);
  }
  EndAdoptedChildren(server->limits.graceSeconds);
  ForgetServerGroup();
  if (server->pidFd >= 0) close(server->pidFd);
  server->pidFd = -1;
  sigaction(SIGPIPE, &gSavedPipe, nullptr);
}

bool RunServer(const std::string& command, const std::string& folder, std::string_view input, ServerRun* run,
               std::string* error, const ServerLimits& limits) {
  *run = ServerRun();
  ServerProcess server;
  if (!StartServer(command, folder, &server, error, limits)) return false;
  FinishServer(&server, input, run);
  return true;
}

std::string ErrorTail(std::string_view errors, size_t maxBytes) {
  while (!errors.empty() && (errors.back() == '\n' || errors.back() == '\r')) errors.remove_suffix(1);
  if (errors.size() <= maxBytes) return std::string(errors);
  std::string_view tail = errors.substr(errors.size() - maxBytes);
  size_t newline = tail.find('\n');
  if (newline != std::string_view::npos && newline + 1 < tail.size()) tail.remove_prefix(newline + 1);
  return std::string(tail);
}

}  // namespace qzhost
