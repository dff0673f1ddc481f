// The translate command's command line: its options and their parsing.
#ifndef QZHOST_COMMANDLINE_H
#define QZHOST_COMMANDLINE_H

#include <string>
#include <vector>

namespace qzhost {

struct Options {
  std::string profile;
  std::string server;
  bool hasServer = false;
  std::string serverOutput;  // "-": standard input
  std::string labelled;      // "-": standard output
  std::string preview;       // "-": standard output
  std::string output;        // "-" or empty: standard output
  std::string library;
  std::string encoding;        // the page's; empty: found from the page
  std::string serverEncoding;  // the server output's; empty: the page's
  std::string page;          // "-": standard input
  std::vector<std::string> pages;  // every page given; --check takes several
  bool check = false;
  double timeoutSeconds = 60;  // 0: no limit
  bool strict = false;
  bool help = false;
  bool version = false;
};

// The full help text.
extern const char kUsage[];

// Parses the command line. Returns false with a one-line message for a
// mistake: an unknown option, a missing or empty value, an option given
// twice, a bad time limit, no page, two pages to translate, both --server
// and --server-output, an option that --check does not take.
// --help and --version end the parse at once.
bool ParseCommandLine(int argc, char** argv, Options* options, std::string* error);

}  // namespace qzhost

#endif
