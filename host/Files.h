// Whole-file reading and all-or-nothing writing for the translate command.
#ifndef QZHOST_FILES_H
#define QZHOST_FILES_H

#include <string>
#include <string_view>

namespace qzhost {

// Reads the whole file. On failure returns false with a message naming the
// path and the system's reason; *bytes then holds what was read before.
bool ReadWholeFile(const std::string& path, std::string* bytes, std::string* error);

// Replaces the file at path with bytes, or leaves it as it was: the bytes go
// to a new file in the same folder, which is renamed over path only once it
// is complete. A new file gets the usual permissions (0666 less the umask),
// an existing one keeps its own. On failure returns false with a message, and
// no temporary file is left behind.
bool WriteWholeFile(const std::string& path, std::string_view bytes, std::string* error);

// Folder that holds path ("." for a bare file name).
std::string FolderOf(const std::string& path);

}  // namespace qzhost

#endif
