// Server runs: fork and exec with three pipes, driven by one poll loop.
#include "Server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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

// In the child: wire the pipes to 0, 1 and 2, enter the folder, exec the
// shell. Only async-signal-safe calls, since the parent may have threads.
[[noreturn]] void ExecChild(const char* command, const char* folder, int in, int out, int err) {
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

// The parent's ends of the three pipes (-1 once closed) and the child.
struct Exchange {
  int toServer = -1, fromServer = -1, errFromServer = -1;
  pid_t pid = -1;
  struct sigaction savedPipe = {};
};

// Makes the three pipes, each end closed on exec, and ignores SIGPIPE so
// that writing to a server that has closed its input gives EPIPE here
// instead of killing the host (the child gets the default back before
// exec). On failure nothing is left open and the message says why.
bool SetUp(int inPipe[2], int outPipe[2], int errPipe[2], Exchange* ex, std::string* error) {
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
  sigaction(SIGPIPE, &ignore, &ex->savedPipe);
  return true;
}

// Forks the child onto the pipes and keeps the parent's ends in ex. On
// failure every pipe is closed, SIGPIPE is restored and the message says
// why.
bool Spawn(const std::string& command, const std::string& folder, int inPipe[2], int outPipe[2], int errPipe[2],
           std::string_view input, Exchange* ex, std::string* error) {
  pid_t pid = fork();
  if (pid == 0) ExecChild(command.c_str(), folder.c_str(), inPipe[0], outPipe[1], errPipe[1]);
  int forkErr = errno;
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
    sigaction(SIGPIPE, &ex->savedPipe, nullptr);
    *error = std::string("cannot start the server: ") + std::strerror(forkErr);
    return false;
  }
  ex->pid = pid;
  fcntl(ex->toServer, F_SETFL, fcntl(ex->toServer, F_GETFL) | O_NONBLOCK);
  if (input.empty()) CloseIf(&ex->toServer);
  return true;
}

// Writes input while reading both outputs until all three pipes are done,
// then closes them.
void Pump(std::string_view input, Exchange* ex, ServerRun* run) {
  size_t written = 0;
  char chunk[65536];
  while (ex->toServer >= 0 || ex->fromServer >= 0 || ex->errFromServer >= 0) {
    struct pollfd fds[3];
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
    if (poll(fds, static_cast<nfds_t>(nfds), -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (inIdx >= 0 && fds[inIdx].revents) {
      ssize_t put = write(ex->toServer, input.data() + written, input.size() - written);
      if (put > 0) written += static_cast<size_t>(put);
      bool stalled = put < 0 && (errno == EAGAIN || errno == EINTR);
      if (written == input.size() || (put < 0 && !stalled)) CloseIf(&ex->toServer);
    }
    if (outIdx >= 0 && fds[outIdx].revents) {
      ssize_t got = read(ex->fromServer, chunk, sizeof chunk);
      if (got > 0) run->output.append(chunk, static_cast<size_t>(got));
      else if (got == 0 || errno != EINTR) CloseIf(&ex->fromServer);
    }
    if (errIdx >= 0 && fds[errIdx].revents) {
      ssize_t got = read(ex->errFromServer, chunk, sizeof chunk);
      if (got > 0) {
        KeepTail(&run->errors, chunk, static_cast<size_t>(got));
        run->errorBytes += static_cast<size_t>(got);
      }
      else if (got == 0 || errno != EINTR) CloseIf(&ex->errFromServer);
    }
  }
  CloseIf(&ex->toServer);
  CloseIf(&ex->fromServer);
  CloseIf(&ex->errFromServer);
}

// Waits for the child, restores SIGPIPE and fills in how the run ended.
void Reap(Exchange* ex, ServerRun* run) {
  int status = 0;
  while (waitpid(ex->pid, &status, 0) < 0 && errno == EINTR) {
  }
  sigaction(SIGPIPE, &ex->savedPipe, nullptr);
  if (run->errors.size() > kErrorTail) run->errors.erase(0, run->errors.size() - kErrorTail);
  if (WIFEXITED(status)) {
    run->exitStatus = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    run->signal = WTERMSIG(status);
  }
}

}  // namespace

bool RunServer(const std::string& command, const std::string& folder, std::string_view input, ServerRun* run,
               std::string* error) {
  *run = ServerRun();
  int inPipe[2], outPipe[2], errPipe[2];
  Exchange ex;
  if (!SetUp(inPipe, outPipe, errPipe, &ex, error)) return false;
  if (!Spawn(command, folder, inPipe, outPipe, errPipe, input, &ex, error)) return false;
  Pump(input, &ex, run);
  Reap(&ex, run);
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
