#include "CommandLine.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <set>

namespace qzhost {

const char kUsage[] =
    "usage: qztranslate [--profile NAME] [--server CMD | --server-output FILE]\n"
    "                   [--labelled FILE] [--preview FILE] [-o OUT] [--timeout SECONDS]\n"
    "                   [--encoding NAME] [--server-encoding NAME] [--strict]\n"
    "                   [--library PATH] PAGE\n"
    "       qztranslate --check [--profile NAME] [--encoding NAME] PAGE...\n"
    "       qztranslate --help | --version\n"
    "\n"
    "Translates the server page PAGE (- for standard input, which needs --profile)\n"
    "and writes the merged page, in PAGE's encoding, to OUT or standard output.\n"
    "\n"
    "  --profile NAME        php, erb or asp; guessed from PAGE's extension when absent\n"
    "  --encoding NAME       PAGE's encoding; without it: its byte order mark, what it\n"
    "                        declares, UTF-8 when valid, else a guess (with a warning)\n"
    "  --server-encoding NAME  the encoding of the server's output (default: PAGE's)\n"
    "  --server CMD          run CMD (through /bin/sh, in PAGE's folder) with the labelled\n"
    "                        page on its standard input; its standard output is merged\n"
    "  --server-output FILE  merge FILE (- for standard input), the output of the\n"
    "                        labelled page made elsewhere\n"
    "  --labelled FILE       also write the labelled page to FILE (- for standard\n"
    "                        output); with neither -o nor a server option, stop there\n"
    "  --preview FILE        also write FILE, an HTML page that shows the merged page\n"
    "                        with its locks beside a list of the page's server code\n"
    "  -o, --output OUT      write the merged page to OUT instead of standard output\n"
    "  --timeout SECONDS     stop a server still running after SECONDS (default 60;\n"
    "                        0: no limit)\n"
    "  --strict              refuse to write a merged page that would lose server\n"
    "                        code or whose labels came back wrong\n"
    "  --library PATH        the translator library to load (default:\n"
    "                        libServerTranslator.so beside qztranslate)\n"
    "  --check               translate nothing: list what in each PAGE would make a\n"
    "                        merge fail (close tags that end server elements early,\n"
    "                        server elements never closed), and server blocks open\n"
    "                        at its end\n"
    "  --help, --version     this text; the command's and the library's versions\n"
    "\n"
    "Without --server or --server-output the profile's own server runs (php: php,\n"
    "erb: erb -T -; asp has none), unless --labelled stands alone.\n"
    "Exit status: 0 done, 1 the translation failed (--check: a page would fail),\n"
    "2 a wrong command line, 128+N interrupted by signal N.\n";

namespace {

bool ParseSeconds(const std::string& text, double* seconds) {
  if (text.empty()) return false;
  char* end = nullptr;
  double value = std::strtod(text.c_str(), &end);
  if (*end != '\0' || !std::isfinite(value) || value < 0) return false;
  *seconds = value;
  return true;
}

// The option's value field, or null for an option that takes no value or
// is unknown.
std::string* ValueOf(const std::string& name, Options* o) {
  if (name == "--profile") return &o->profile;
  if (name == "--server") return &o->server;
  if (name == "--server-output") return &o->serverOutput;
  if (name == "--labelled") return &o->labelled;
  if (name == "--preview") return &o->preview;
  if (name == "-o" || name == "--output") return &o->output;
  if (name == "--library") return &o->library;
  if (name == "--encoding") return &o->encoding;
  if (name == "--server-encoding") return &o->serverEncoding;
  return nullptr;
}

// What the parse has seen so far.
struct ParseState {
  std::set<std::string> seen;  // options given, -o counted as --output
  std::string timeout;
};

// Options without a value, and where they are kept.
bool* FlagOf(const std::string& name, Options* o) {
  if (name == "--strict") return &o->strict;
  if (name == "--check") return &o->check;
  return nullptr;
}

// Takes the option name (with its value inline, or from argv[*i + 1]).
// Returns false with a message for a mistake.
bool TakeOption(const std::string& name, const std::string* inlineValue, int argc, char** argv, int* i, Options* o,
                ParseState* state, std::string* error) {
  if (!state->seen.insert(name == "-o" ? "--output" : name).second) {
    *error = name + " is given twice";
    return false;
  }
  if (bool* flag = FlagOf(name, o)) {
    *flag = true;
    if (inlineValue) *error = name + " takes no value";
    return !inlineValue;
  }
  std::string* target = name == "--timeout" ? &state->timeout : ValueOf(name, o);
  if (!inlineValue && *i + 1 >= argc) {
    *error = name + " needs a value";
    return false;
  }
  *target = inlineValue ? *inlineValue : argv[++*i];
  if (target->empty()) {
    *error = name + " needs a value that is not empty";
    return false;
  }
  if (name == "--server") o->hasServer = true;
  return true;
}

// What --check takes besides its pages.
bool CheckTakes(const std::string& option) {
  return option == "--check" || option == "--profile" || option == "--encoding";
}

// What the options say together.
bool CheckTogether(const Options& o, const ParseState& state, std::string* error) {
  for (const std::string& option : state.seen)
    if (o.check && !CheckTakes(option)) *error = "--check takes only --profile and --encoding, not " + option;
  size_t fromInput = static_cast<size_t>(std::count(o.pages.begin(), o.pages.end(), "-"));
  if (!error->empty()) return false;
  if (o.pages.empty()) *error = "no page given";
  else if (o.pages.size() > 1 && !o.check) *error = "only one page can be translated at a time";
  else if (fromInput > 1) *error = "standard input can be read only once";
  else if (o.hasServer && !o.serverOutput.empty()) *error = "give --server or --server-output, not both";
  else if (o.page == "-" && o.serverOutput == "-")
    *error = "the page and the server output cannot both come from standard input";
  return error->empty();
}

}  // namespace

bool ParseCommandLine(int argc, char** argv, Options* o, std::string* error) {
  ParseState state;
  error->clear();
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    size_t equals = arg.rfind("--", 0) == 0 ? arg.find('=') : std::string::npos;
    std::string name = arg.substr(0, equals);
    std::string inlineValue = equals == std::string::npos ? "" : arg.substr(equals + 1);
    if (name == "-h" || name == "--help" || name == "--version") {
      (name == "--version" ? o->version : o->help) = true;
      return true;
    }
    bool ok = true;
    if (FlagOf(name, o) || name == "--timeout" || ValueOf(name, o)) {
      ok = TakeOption(name, equals == std::string::npos ? nullptr : &inlineValue, argc, argv, &i, o, &state, error);
    } else if (arg == "--") {
      // Whatever follows is the page, even when it begins with "-".
      for (++i; i < argc; ++i) o->pages.push_back(argv[i]);
    } else if (arg.size() > 1 && arg[0] == '-') {
      *error = "unknown option " + arg;
      ok = false;
    } else {
      o->pages.push_back(arg);
    }
    if (!ok) return false;
  }
  if (!state.timeout.empty() && !ParseSeconds(state.timeout, &o->timeoutSeconds)) {
    *error = "--timeout needs a number of seconds, 0 or more, not " + state.timeout;
    return false;
  }
  if (!o->pages.empty()) o->page = o->pages.front();
  return CheckTogether(*o, state, error);
}

}  // namespace qzhost
