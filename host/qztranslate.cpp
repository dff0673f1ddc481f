// qztranslate: translates a server page from the command line, with a real
// server doing the server's part, through the translator library loaded as a
// host loads it.
//
// Exit status: 0 on success, 1 when the translation fails (the message on
// standard error says which step and why), 2 for a wrong command line.
// Nothing is written to the output until the merged page is complete, and an
// output file is replaced whole or not at all.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "Engine.h"
#include "Files.h"
#include "Library.h"
#include "Server.h"
#include "TranslationSession.h"
#include "Utf8.h"

namespace {

using namespace qzhost;

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

const char kUsage[] =
    "usage: qztranslate [--profile NAME] [--server CMD | --server-output FILE]\n"
    "                   [--labelled FILE] [-o OUT] [--library PATH] PAGE\n"
    "\n"
    "Translates the server page PAGE (UTF-8) and writes the merged page, UTF-8,\n"
    "to OUT or standard output.\n"
    "\n"
    "  --profile NAME        php, erb or asp; guessed from PAGE's extension when absent\n"
    "  --server CMD          run CMD (through /bin/sh, in PAGE's folder) with the labelled\n"
    "                        page on its standard input; its standard output is merged\n"
    "  --server-output FILE  merge FILE, the output of the labelled page made elsewhere\n"
    "  --labelled FILE       also write the labelled page to FILE; without --server or\n"
    "                        --server-output, stop there\n"
    "  -o, --output OUT      write the merged page to OUT instead of standard output\n"
    "  --library PATH        the translator library to load (default:\n"
    "                        libServerTranslator.so beside qztranslate)\n"
    "\n"
    "Without --server, --server-output or --labelled, the profile's own server runs\n"
    "(php: php, erb: erb -T -; asp has none).\n";

struct Options {
  std::string profile;
  std::string server;
  bool hasServer = false;
  std::string serverOutput;
  std::string labelled;
  std::string output;
  std::string library;
  std::string page;
};

int Fail(const std::string& message) {
  std::fprintf(stderr, "qztranslate: %s\n", message.c_str());
  return kExitFailed;
}

int UsageError(const std::string& message) {
  std::fprintf(stderr, "qztranslate: %s\n%s", message.c_str(), kUsage);
  return kExitUsage;
}

// Parses the command line; returns -1 when the command should go on, else
// the exit status.
int ParseOptions(int argc, char** argv, Options* o) {
  bool pageSeen = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    std::string* target = nullptr;
    std::string name = arg, inlineValue;
    bool hasInline = false;
    if (arg.rfind("--", 0) == 0 && arg.find('=') != std::string::npos) {
      name = arg.substr(0, arg.find('='));
      inlineValue = arg.substr(arg.find('=') + 1);
      hasInline = true;
    }
    if (name == "-h" || name == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (name == "--profile") {
      target = &o->profile;
    } else if (name == "--server") {
      target = &o->server;
      o->hasServer = true;
    } else if (name == "--server-output") {
      target = &o->serverOutput;
    } else if (name == "--labelled") {
      target = &o->labelled;
    } else if (name == "-o" || name == "--output") {
      target = &o->output;
    } else if (name == "--library") {
      target = &o->library;
    }
    if (target) {
      if (!hasInline && i + 1 >= argc) return UsageError(name + " needs a value");
      *target = hasInline ? inlineValue : argv[++i];
      if (target->empty()) return UsageError(name + " needs a value that is not empty");
      continue;
    }
    if (arg == "--") {
      if (i + 1 < argc && !pageSeen) {
        o->page = argv[++i];
        pageSeen = true;
      }
      if (i + 1 < argc) return UsageError("only one page can be translated at a time");
      continue;
    }
    if (arg.size() > 1 && arg[0] == '-') return UsageError("unknown option " + arg);
    if (pageSeen) return UsageError("only one page can be translated at a time");
    o->page = arg;
    pageSeen = true;
  }
  if (!pageSeen) return UsageError("no page given");
  if (o->hasServer && !o->serverOutput.empty()) return UsageError("give --server or --server-output, not both");
  return -1;
}

// Reads a UTF-8 file into UTF-16; what names it in messages is what.
bool ReadText(const std::string& path, const std::string& what, std::u16string* text, std::string* error) {
  std::string bytes;
  if (!ReadWholeFile(path, &bytes, error)) {
    *error = "cannot read " + what + " " + *error;
    return false;
  }
  size_t at = 0;
  switch (DecodeUtf8(bytes, text, &at)) {
    case Utf8Error::kNone:
      return true;
    case Utf8Error::kInvalid:
      *error = what + " " + path + " is not valid UTF-8: bad byte sequence at byte offset " + std::to_string(at) +
               " (line " + std::to_string(LineOfByte(bytes, at)) + ")";
      return false;
    case Utf8Error::kNul:
      *error = what + " " + path + " holds a NUL character at byte offset " + std::to_string(at) + " (line " +
               std::to_string(LineOfByte(bytes, at)) + "), which a page cannot hold";
      return false;
  }
  return false;
}

bool WriteOut(const std::string& path, std::string_view bytes, std::string* error) {
  if (path.empty() || path == "-") {
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() || std::fflush(stdout) != 0) {
      *error = std::string("cannot write the merged page to standard output: ") + std::strerror(errno);
      return false;
    }
    return true;
  }
  if (!WriteWholeFile(path, bytes, error)) {
    *error = "cannot write " + *error;
    return false;
  }
  return true;
}

std::string DescribeFailedServer(const std::string& command, const ServerRun& run) {
  std::string message = "the server `" + command + "` ";
  if (run.signal) message += "was killed by signal " + std::to_string(run.signal) + " (" + strsignal(run.signal) + ")";
  else if (run.exitStatus == 127) message += "could not be run (exit status 127: command not found?)";
  else message += "failed with exit status " + std::to_string(run.exitStatus);
  std::string tail = ErrorTail(run.errors);
  if (tail.empty()) return message + "; it wrote nothing to its standard error";
  return message + "; its standard error ends with:\n" + tail;
}

int Translate(const Options& o) {
  const Profile* profile = nullptr;
  if (!o.profile.empty()) {
    profile = FindProfile(o.profile);
    if (!profile) return UsageError("unknown profile " + o.profile + " (known: php, erb, asp)");
  } else {
    profile = ProfileForPath(o.page);
    if (!profile) return UsageError("cannot tell the profile from the name " + o.page + "; give --profile php, erb or asp");
  }
  std::string serverCommand = o.hasServer ? o.server : "";
  bool stopAfterLabels = !o.hasServer && o.serverOutput.empty() && !o.labelled.empty();
  if (!o.hasServer && o.serverOutput.empty() && !stopAfterLabels) {
    serverCommand = profile->serverCommand;
    if (serverCommand.empty())
      return UsageError("the " + profile->name +
                        " profile has no server of its own: give --server CMD or --server-output FILE, or --labelled "
                        "FILE to stop after labelling");
  }

  std::string error;
  std::u16string page;
  if (!ReadText(o.page, "page", &page, &error)) return Fail(error);
  std::u16string output;
  if (!o.serverOutput.empty() && !ReadText(o.serverOutput, "server output", &output, &error)) return Fail(error);

  Engine engine;
  std::string library = o.library.empty() ? DefaultLibraryPath() : o.library;
  if (!LoadTranslatorLibrary(library, engine, &error)) return Fail(error);

  TranslationSession session(engine, *profile);
  std::u16string labelled;
  if (!session.Start(&error) || !session.Label(page, &labelled, &error))
    return Fail("labelling the page failed: " + error);
  for (const std::string& warning : session.Warnings())
    std::fprintf(stderr, "qztranslate: warning: %s: %s\n", o.page.c_str(), warning.c_str());
  std::string labelledBytes = EncodeUtf8(labelled);
  if (!o.labelled.empty() && !WriteWholeFile(o.labelled, labelledBytes, &error))
    return Fail("cannot write the labelled page " + error);
  if (stopAfterLabels) return 0;

  if (o.serverOutput.empty()) {
    ServerRun run;
    if (!RunServer(serverCommand, FolderOf(o.page), labelledBytes, &run, &error)) return Fail(error);
    if (!run.Succeeded()) return Fail(DescribeFailedServer(serverCommand, run));
    // A server that worked may still have warned; pass that on.
    if (run.errorBytes > run.errors.size())
      std::fprintf(stderr, "qztranslate: the server's standard error, its first %zu bytes left out:\n",
                   run.errorBytes - run.errors.size());
    std::fwrite(run.errors.data(), 1, run.errors.size(), stderr);
    size_t at = 0;
    switch (DecodeUtf8(run.output, &output, &at)) {
      case Utf8Error::kNone:
        break;
      case Utf8Error::kInvalid:
        return Fail("the server's output is not valid UTF-8: bad byte sequence at byte offset " + std::to_string(at) +
                    " (line " + std::to_string(LineOfByte(run.output, at)) + ")");
      case Utf8Error::kNul:
        return Fail("the server's output holds a NUL character at byte offset " + std::to_string(at) + " (line " +
                    std::to_string(LineOfByte(run.output, at)) + ")");
    }
  }

  std::u16string merged;
  if (!session.Merge(output, &merged, &error)) return Fail(error);
  if (!WriteOut(o.output, EncodeUtf8(merged), &error)) return Fail(error);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  int status = ParseOptions(argc, argv, &options);
  if (status >= 0) return status;
  return Translate(options);
}
