// Whole-file reading, and writing output that never harms a file: links are
// followed to their target, a regular file is replaced whole or not at all,
// anything else (a pipe, a device, a terminal, a descriptor) is written in
// place.
#ifndef QZHOST_FILES_H
#define QZHOST_FILES_H

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

namespace qzhost {

// Reads the whole file ("-": standard input). On failure returns false with
// a message naming the path and the system's reason; *bytes then holds what
// was read before.
bool ReadWholeFile(const std::string& path, std::string* bytes, std::string* error);

// Where an output goes, found before anything is written.
struct OutputTarget {
  enum class Kind {
    kDescriptor,  // an open descriptor: "-", /dev/stdout, /dev/fd/N, ...
    kFile,        // a regular file, or none yet: replaced whole
    kInPlace,     // a pipe, device or socket: written as it is
  };
  Kind kind = Kind::kFile;
  std::string given;  // the name on the command line, for messages
  std::string path;   // with every symbolic link followed (kFile, kInPlace)
  int fd = -1;        // kDescriptor
  bool exists = false;
  struct stat st = {};  // when exists
  // How long a named pipe may keep the write waiting, for a reader to open
  // it and to read what is written (0: as long as it takes).
  double waitSeconds = 0;
};

// Finds where given leads: "-" is standard output; /dev/stdout, /dev/stderr,
// /dev/fd/N and /proc/self/fd/N are that descriptor; symbolic links are
// followed (also dangling ones, whose target is then created). Fails with a
// message for a directory, a socket, a descriptor that is not open, a chain
// of links that does not end, and a target this process may not write (a
// file or device without write permission, a folder in which a file cannot
// be made or replaced), so that the command can refuse it before any server
// runs.
bool ResolveOutput(const std::string& given, OutputTarget* target, std::string* error);

// Writes bytes to the target. A regular file is written under a short
// temporary name in its own folder and renamed over the path once complete,
// keeping the permission bits (and, where the system allows, the owner) of
// the file it replaces; a new one gets 0666 less the umask. Other targets
// are written in place; a named pipe that no process opens for reading, or
// whose reader stops reading, fails the write after target.waitSeconds. On
// failure returns false with a message, and no
// temporary file is left behind, also when the command is interrupted
// (Cleanup.h).
bool WriteOutput(const OutputTarget& target, std::string_view bytes, std::string* error);

// A regular file written under a temporary name beside its path, not yet
// renamed over it.
struct StagedFile {
  std::vector<char> temp;  // the temporary file's name, NUL-ended; empty when none
  std::string path, shown;
};

// Removes a staged file that is not to be renamed; nothing when none.
void DropFile(StagedFile* staged);

// Outputs that are replaced together: each regular file is written under a
// temporary name as it is added, and all are renamed over their paths only
// when Commit is called, so that a command that fails (or is interrupted)
// before then leaves every one of them as it was. Pipes, devices and
// descriptors cannot wait and are written when added. What was not
// committed is removed when the batch goes.
class OutputBatch {
 public:
  OutputBatch() = default;
  ~OutputBatch();
  OutputBatch(const OutputBatch&) = delete;
  OutputBatch& operator=(const OutputBatch&) = delete;

  bool Add(const OutputTarget& target, std::string_view bytes, std::string* error);
  // Renames every staged file in the order added. A rename that fails
  // (which the checks made when the target was resolved leave unlikely)
  // stops there: the files renamed before it stay replaced, those after it
  // are removed.
  bool Commit(std::string* error);

 private:
  std::vector<StagedFile> staged_;
};

// Replaces the file at path with bytes, or leaves it as it was (a regular
// file target of WriteOutput).
bool WriteWholeFile(const std::string& path, std::string_view bytes, std::string* error);

// True when both name the same file (same device and inode).
inline bool SameFile(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// Folder that holds path ("." for a bare file name).
std::string FolderOf(const std::string& path);

}  // namespace qzhost

#endif
