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
  std::string output;   // everything it wrote to standard output
  std::string errors;   // the tail of what it wrote to standard error (at most kErrorTail bytes)
  size_t errorBytes = 0;  // how much it wrote to standard error in all
  bool Succeeded() const { return exitStatus == 0; }
};

constexpr size_t kErrorTail = 64 * 1024;

// Runs command with /bin/sh -c in the given folder, writing input to its
// standard input (closed after the last byte) while reading its standard
// output and error, so that a server which answers before it has read
// everything cannot stall the exchange. A server that stops reading early
// does not fail the run by itself; its exit status tells. Waits for it to
// end. Returns false only when the command could not be started (the message
// says why); a command that ran and failed returns true with its status.
bool RunServer(const std::string& command, const std::string& folder, std::string_view input, ServerRun* run,
               std::string* error);

// The last lines of a server's standard error, at most maxBytes long, for a
// message; whole lines where possible.
std::string ErrorTail(std::string_view errors, size_t maxBytes = 2000);

}  // namespace qzhost

#endif
