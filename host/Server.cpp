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

}  // namespace

bool RunServer(const std::string& command, const std::string& folder, std::string_view input, ServerRun* run,
               std::string* error) {
  *run = ServerRun();
  // The pipes must not land on 0, 1 or 2, where the child's dup2 calls
  // would trip over them: a host started with one of those closed gets it
  // opened on /dev/null first.
  for (int fd = 0; fd <= 2; ++fd)
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", O_RDWR);
  int inPipe[2], outPipe[2], errPipe[2];
  if (pipe2(inPipe, O_CLOEXEC) != 0) {
    *error = std::string("cannot make a pipe: ") + std::strerror(errno);
    return false;
  }
  if (pipe2(outPipe, O_CLOEXEC) != 0) {
    *error = std::string("cannot make a pipe: ") + std::strerror(errno);
    close(inPipe[0]);
    close(inPipe[1]);
    return false;
  }
  if (pipe2(errPipe, O_CLOEXEC) != 0) {
    *error = std::string("cannot make a pipe: ") + std::strerror(errno);
    for (int fd : {inPipe[0], inPipe[1], outPipe[0], outPipe[1]}) close(fd);
    return false;
  }
  // Writing to a server that has closed its input must give EPIPE here, not
  // kill the host; the child gets the default back before exec.
  struct sigaction ignore = {}, saved = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &saved);

  pid_t pid = fork();
  if (pid == 0) ExecChild(command.c_str(), folder.c_str(), inPipe[0], outPipe[1], errPipe[1]);
  int forkErr = errno;
  close(inPipe[0]);
  close(outPipe[1]);
  close(errPipe[1]);
  int toServer = inPipe[1], fromServer = outPipe[0], errFromServer = errPipe[0];
  if (pid < 0) {
    CloseIf(&toServer);
    CloseIf(&fromServer);
    CloseIf(&errFromServer);
    sigaction(SIGPIPE, &saved, nullptr);
    *error = std::string("cannot start the server: ") + std::strerror(forkErr);
    return false;
  }
  fcntl(toServer, F_SETFL, fcntl(toServer, F_GETFL) | O_NONBLOCK);
  if (input.empty()) CloseIf(&toServer);

  size_t written = 0;
  char chunk[65536];
  while (toServer >= 0 || fromServer >= 0 || errFromServer >= 0) {
    struct pollfd fds[3];
    int nfds = 0, inIdx = -1, outIdx = -1, errIdx = -1;
    if (toServer >= 0) {
      inIdx = nfds;
      fds[nfds++] = {toServer, POLLOUT, 0};
    }
    if (fromServer >= 0) {
      outIdx = nfds;
      fds[nfds++] = {fromServer, POLLIN, 0};
    }
    if (errFromServer >= 0) {
      errIdx = nfds;
      fds[nfds++] = {errFromServer, POLLIN, 0};
    }
    if (poll(fds, static_cast<nfds_t>(nfds), -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (inIdx >= 0 && fds[inIdx].revents) {
      ssize_t put = write(toServer, input.data() + written, input.size() - written);
      if (put > 0) written += static_cast<size_t>(put);
      bool stalled = put < 0 && (errno == EAGAIN || errno == EINTR);
      if (written == input.size() || (put < 0 && !stalled)) CloseIf(&toServer);
    }
    if (outIdx >= 0 && fds[outIdx].revents) {
      ssize_t got = read(fromServer, chunk, sizeof chunk);
      if (got > 0) run->output.append(chunk, static_cast<size_t>(got));
      else if (got == 0 || errno != EINTR) CloseIf(&fromServer);
    }
    if (errIdx >= 0 && fds[errIdx].revents) {
      ssize_t got = read(errFromServer, chunk, sizeof chunk);
      if (got > 0) {
        KeepTail(&run->errors, chunk, static_cast<size_t>(got));
        run->errorBytes += static_cast<size_t>(got);
      }
      else if (got == 0 || errno != EINTR) CloseIf(&errFromServer);
    }
  }
  CloseIf(&toServer);
  CloseIf(&fromServer);
  CloseIf(&errFromServer);

  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  sigaction(SIGPIPE, &saved, nullptr);
  if (run->errors.size() > kErrorTail) run->errors.erase(0, run->errors.size() - kErrorTail);
  if (WIFEXITED(status)) {
    run->exitStatus = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    run->signal = WTERMSIG(status);
  }
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
