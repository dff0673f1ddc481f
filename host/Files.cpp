#include "Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace qzhost {

static std::string Reason(const std::string& path, int err) { return path + ": " + std::strerror(err); }

bool ReadWholeFile(const std::string& path, std::string* bytes, std::string* error) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = Reason(path, errno);
    return false;
  }
  bytes->clear();
  char chunk[65536];
  for (;;) {
    ssize_t got = read(fd, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      *error = Reason(path, errno);
      close(fd);
      return false;
    }
    if (got == 0) break;
    bytes->append(chunk, static_cast<size_t>(got));
  }
  close(fd);
  return true;
}

std::string FolderOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// Writes all bytes; returns 0 or the error that stopped it.
static int WriteAll(int fd, std::string_view bytes) {
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

bool WriteWholeFile(const std::string& path, std::string_view bytes, std::string* error) {
  std::string pattern = path + ".XXXXXX";
  std::vector<char> temp(pattern.begin(), pattern.end());
  temp.push_back('\0');
  int fd = mkostemp(temp.data(), O_CLOEXEC);
  if (fd < 0) {
    *error = Reason(path, errno);
    return false;
  }
  mode_t mode;
  struct stat st;
  if (stat(path.c_str(), &st) == 0) {
    mode = st.st_mode & 07777;
  } else {
    mode_t mask = umask(0);
    umask(mask);
    mode = 0666 & ~mask;
  }
  int err = fchmod(fd, mode) != 0 ? errno : 0;
  if (err == 0) err = WriteAll(fd, bytes);
  if (err == 0 && fsync(fd) != 0) err = errno;
  if (close(fd) != 0 && err == 0) err = errno;
  if (err == 0 && rename(temp.data(), path.c_str()) != 0) err = errno;
  if (err != 0) {
    unlink(temp.data());
    *error = Reason(path, err);
    return false;
  }
  return true;
}

}  // namespace qzhost
