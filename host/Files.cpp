// Reading inputs and writing outputs for the translate command.
//
// Rules local to this file: a temporary file is registered for removal on
// interruption in the same step that creates it, and forgotten in the same
// step that renames it, with the interrupt signals held off in between.
#include "Files.h"

#include <fcntl.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Cleanup.h"

namespace qzhost {
namespace {

std::string Reason(const std::string& path, int err) { return path + ": " + std::strerror(err); }

bool ReadAll(int fd, const std::string& path, std::string* bytes, std::string* error) {
  char chunk[65536];
  for (;;) {
    ssize_t got = read(fd, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      *error = Reason(path, errno);
      return false;
    }
    if (got == 0) return true;
    bytes->append(chunk, static_cast<size_t>(got));
  }
}

// Writes all bytes; returns 0 or the error that stopped it.
int WriteAll(int fd, std::string_view bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t put = write(fd, bytes.data() + done, bytes.size() - done);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return errno;
    if (put == 0) return EIO;
    done += static_cast<size_t>(put);
  }
  return 0;
}

// The descriptor a path names by itself (/dev/stdout, /dev/fd/3,
// /proc/self/fd/3), or -1.
int DescriptorOf(const std::string& path) {
  if (path == "/dev/stdin") return 0;
  if (path == "/dev/stdout") return 1;
  if (path == "/dev/stderr") return 2;
  for (const char* prefix : {"/dev/fd/", "/proc/self/fd/"}) {
    size_t n = std::strlen(prefix);
    if (path.compare(0, n, prefix) != 0 || path.size() == n || path.size() > n + 9) continue;
    if (path.find_first_not_of("0123456789", n) != std::string::npos) continue;
    return std::atoi(path.c_str() + n);
  }
  return -1;
}

// The target of the link at path, relative to the link's own folder.
bool FollowLink(const std::string& path, std::string* next, std::string* error) {
  std::vector<char> buffer(4096);
  ssize_t n = readlink(path.c_str(), buffer.data(), buffer.size());
  if (n < 0 || static_cast<size_t>(n) >= buffer.size()) {
    *error = Reason(path, n < 0 ? errno : ENAMETOOLONG);
    return false;
  }
  std::string target(buffer.data(), static_cast<size_t>(n));
  *next = target[0] == '/' ? target : FolderOf(path) + "/" + target;
  return true;
}

bool WriteToDescriptor(const OutputTarget& target, std::string_view bytes, std::string* error) {
  int err = WriteAll(target.fd, bytes);
  if (err == 0) return true;
  *error = Reason(target.given, err);
  return false;
}

double Now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Opens a pipe or device for writing without blocking: a named pipe that no
// process reads yet is tried again every 10 ms until the deadline (0: none).
// -1 with errno set; ETIMEDOUT when the deadline passed.
int OpenInPlace(const std::string& path, double deadline) {
  for (;;) {
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd >= 0 || errno != ENXIO) return fd;
    if (deadline > 0 && Now() >= deadline) {
      errno = ETIMEDOUT;
      return -1;
    }
    struct timespec nap = {0, 10 * 1000 * 1000};
    nanosleep(&nap, nullptr);
  }
}

// Writes all bytes to a descriptor opened without blocking, waiting for room
// until the deadline (0: none); returns 0 or the error that stopped it,
// ETIMEDOUT when the deadline passed.
int WriteAllBy(int fd, std::string_view bytes, double deadline) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t put = write(fd, bytes.data() + done, bytes.size() - done);
    if (put > 0) {
      done += static_cast<size_t>(put);
      continue;
    }
    if (put < 0 && errno != EAGAIN && errno != EINTR) return errno;
    if (put == 0) return EIO;
    double left = deadline > 0 ? deadline - Now() : -1;
    if (deadline > 0 && left <= 0) return ETIMEDOUT;
    struct pollfd room = {fd, POLLOUT, 0};
    if (poll(&room, 1, left < 0 ? -1 : static_cast<int>(left * 1000) + 1) < 0 && errno != EINTR) return errno;
  }
  return 0;
}

bool WriteInPlace(const OutputTarget& target, std::string_view bytes, std::string* error) {
  double deadline = target.waitSeconds > 0 ? Now() + target.waitSeconds : 0;
  int fd = OpenInPlace(target.path, deadline);
  int err = fd < 0 ? errno : WriteAllBy(fd, bytes, deadline);
  if (fd >= 0 && close(fd) != 0 && err == 0 && errno != EINTR) err = errno;
  if (err == 0) return true;
  if (err != ETIMEDOUT) {
    *error = Reason(target.given, err);
    return false;
  }
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%g", target.waitSeconds);
  *error = target.given + ": no process " + (fd < 0 ? "opened it for reading" : "read what was written") +
           " within " + seconds + " seconds (--timeout)";
  return false;
}

// Fails, with the system's reason, when this process may not write path in
// the given way.
bool MayWrite(const std::string& path, int mode, const std::string& given, std::string* error) {
  if (access(path.c_str(), mode) == 0) return true;
  *error = Reason(given, errno);
  return false;
}

// Permission bits for a new file: 0666 less the umask, which can only be
// read by setting it.
mode_t NewFileMode() {
  mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

// Creates and registers the temporary file beside path; -1 with errno set.
int MakeTemporary(const std::string& path, std::vector<char>* temp) {
  std::string pattern = FolderOf(path) + "/.qzXXXXXX";
  temp->assign(pattern.begin(), pattern.end());
  temp->push_back('\0');
  BlockInterrupts();
  int fd = mkostemp(temp->data(), O_CLOEXEC);
  if (fd >= 0 && !RegisterTempFile(temp->data())) {
    unlink(temp->data());
    close(fd);
    fd = -1;
    errno = ENAMETOOLONG;
  }
  UnblockInterrupts();
  return fd;
}

// Writes bytes under a temporary name beside path, with the permission bits
// (and, where the system allows, the owner) of the file there, if any; the
// temporary file is registered for removal on interruption. On failure
// nothing is left behind; messages name the file as shown.
bool StageFile(const std::string& path, const std::string& shown, std::string_view bytes, StagedFile* staged,
               std::string* error) {
  staged->path = path;
  staged->shown = shown;
  int fd = MakeTemporary(path, &staged->temp);
  if (fd < 0) {
    staged->temp.clear();
    *error = Reason(shown, errno);
    return false;
  }
  struct stat st;
  bool replacing = stat(path.c_str(), &st) == 0;
  int err = fchmod(fd, replacing ? st.st_mode & 07777 : NewFileMode()) != 0 ? errno : 0;
  if (err == 0 && replacing && (st.st_uid != geteuid() || st.st_gid != getegid())) {
    // Only a privileged command may give the file back its owner; others
    // own the new file, as they would any file they create.
    int ignored = fchown(fd, st.st_uid, st.st_gid);
    (void)ignored;
  }
  if (err == 0) err = WriteAll(fd, bytes);
  if (err == 0 && fsync(fd) != 0) err = errno;
  if (close(fd) != 0 && err == 0) err = errno;
  if (err == 0) return true;
  DropFile(staged);
  *error = Reason(shown, err);
  return false;
}

// Renames the staged file over its path; on failure it is removed.
bool CommitFile(StagedFile* staged, std::string* error) {
  BlockInterrupts();
  int err = rename(staged->temp.data(), staged->path.c_str()) != 0 ? errno : 0;
  if (err != 0) unlink(staged->temp.data());
  ForgetTempFile(staged->temp.data());
  UnblockInterrupts();
  staged->temp.clear();
  if (err == 0) return true;
  *error = Reason(staged->shown, err);
  return false;
}

// Replaces the regular file at path (or creates it) through a temporary
// file; messages name it as shown.
bool ReplaceFile(const std::string& path, const std::string& shown, std::string_view bytes, std::string* error) {
  StagedFile staged;
  return StageFile(path, shown, bytes, &staged, error) && CommitFile(&staged, error);
}

}  // namespace

bool ReadWholeFile(const std::string& path, std::string* bytes, std::string* error) {
  bytes->clear();
  if (path == "-") return ReadAll(0, "standard input", bytes, error);
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = Reason(path, errno);
    return false;
  }
  bool ok = ReadAll(fd, path, bytes, error);
  close(fd);
  return ok;
}

std::string FolderOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

bool ResolveOutput(const std::string& given, OutputTarget* target, std::string* error) {
  *target = OutputTarget();
  target->given = given == "-" ? "standard output" : given;
  std::string path = given;
  // As many links as the system itself follows in one lookup.
  for (int hops = 0; hops < 40; ++hops) {
    int fd = given == "-" ? 1 : DescriptorOf(path);
    if (fd >= 0) {
      if (fstat(fd, &target->st) != 0) {
        *error = Reason(target->given, errno);
        return false;
      }
      target->kind = OutputTarget::Kind::kDescriptor;
      target->fd = fd;
      target->exists = true;
      return true;
    }
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
      int err = errno;
      // A new file needs its folder; found out now, before anything runs.
      struct stat folder;
      if (err == ENOENT) err = stat(FolderOf(path).c_str(), &folder) != 0 ? errno : S_ISDIR(folder.st_mode) ? 0 : ENOTDIR;
      if (err != 0) {
        *error = Reason(target->given, err);
        return false;
      }
      target->path = path;
      return MayWrite(FolderOf(path), W_OK | X_OK, target->given, error);
    }
    if (S_ISLNK(st.st_mode)) {
      if (!FollowLink(path, &path, error)) return false;
      continue;
    }
    if (S_ISDIR(st.st_mode) || S_ISSOCK(st.st_mode)) {
      *error = Reason(target->given, S_ISDIR(st.st_mode) ? EISDIR : ENXIO);
      return false;
    }
    target->kind = S_ISREG(st.st_mode) ? OutputTarget::Kind::kFile : OutputTarget::Kind::kInPlace;
    target->path = path;
    target->exists = true;
    target->st = st;
    // A regular file is replaced by renaming into its folder; one its owner
    // made read-only is refused all the same, as a shell's `>` refuses it.
    if (target->kind == OutputTarget::Kind::kFile && !MayWrite(FolderOf(path), W_OK | X_OK, target->given, error))
      return false;
    return MayWrite(path, W_OK, target->given, error);
  }
  *error = Reason(target->given, ELOOP);
  return false;
}

bool WriteOutput(const OutputTarget& target, std::string_view bytes, std::string* error) {
  switch (target.kind) {
    case OutputTarget::Kind::kDescriptor:
      return WriteToDescriptor(target, bytes, error);
    case OutputTarget::Kind::kInPlace:
      return WriteInPlace(target, bytes, error);
    case OutputTarget::Kind::kFile:
      break;
  }
  return ReplaceFile(target.path, target.given, bytes, error);
}

bool WriteWholeFile(const std::string& path, std::string_view bytes, std::string* error) {
  return ReplaceFile(path, path, bytes, error);
}

void DropFile(StagedFile* staged) {
  if (staged->temp.empty()) return;
  BlockInterrupts();
  unlink(staged->temp.data());
  ForgetTempFile(staged->temp.data());
  UnblockInterrupts();
  staged->temp.clear();
}

OutputBatch::~OutputBatch() {
  for (StagedFile& staged : staged_) DropFile(&staged);
}

bool OutputBatch::Add(const OutputTarget& target, std::string_view bytes, std::string* error) {
  if (target.kind != OutputTarget::Kind::kFile) return WriteOutput(target, bytes, error);
  staged_.emplace_back();
  if (StageFile(target.path, target.given, bytes, &staged_.back(), error)) return true;
  staged_.pop_back();
  return false;
}

bool OutputBatch::Commit(std::string* error) {
  bool ok = true;
  for (StagedFile& staged : staged_) {
    if (ok)
      ok = CommitFile(&staged, error);
    else
      DropFile(&staged);
  }
  staged_.clear();
  return ok;
}

}  // namespace qzhost
