#include "CommandLine.h"

#include <cmath>
#include <cstdlib>
#include <set>

namespace qzhost {

const char kUsage[] =
    "usage: qztranslate [--profile NAME] [--server CMD | --server-output FILE]\n"
    "                   [--labelled FILE] [-o OUT] [--timeout SECONDS] [--strict]\n"
    "                   [--library PATH] PAGE\n"
    "       qztranslate --help | --version\n"
    "\n"
    "Translates the server page PAGE (UTF-8; - for standard input, which needs\n"
    "--profile) and writes the merged page, UTF-8, to OUT or standard output.\n"
    "\n"
    "  --profile NAME        php, erb or asp; guessed from PAGE's extension when absent\n"
    "  --server CMD          run CMD (through /bin/sh, in PAGE's folder) with the labelled\n"
    "                        page on its standard input; its standard output is merged\n"
    "  --server-output FILE  merge FILE (- for standard input), the output of the\n"
    "                        labelled page made elsewhere\n"
    "  --labelled FILE       also write the labelled page to FILE (- for standard\n"
    "                        output); with neither -o nor a server option, stop there\n"
    "  -o, --output OUT      write the merged page to OUT instead of standard output\n"
    "  --timeout SECONDS     stop a server still running after SECONDS (default 60;\n"
    "                        0: no limit)\n"
    "  --strict              refuse to write a merged page that would lose server\n"
    "                        code or whose labels came back wrong\n"
    "  --library PATH        the translator library to load (default:\n"
    "                        libServerTranslator.so beside qztranslate)\n"
    "  --help, --version     this text; the command's and the library's versions\n"
    "\n"
    "Without --server or --server-output the profile's own server runs (php: php,\n"
    "erb: erb -T -; asp has none), unless --labelled stands alone.\n"
    "Exit status: 0 done, 1 the translation failed, 2 a wrong command line,\n"
    "128+N interrupted by signal N.\n";

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
  if (name == "-o" || name == "--output") return &o->output;
  if (name == "--library") return &o->library;
  return nullptr;
}

}  // namespace

bool ParseCommandLine(int argc, char** argv, Options* o, std::string* error) {
  bool pageSeen = false;
  std::set<std::string> seen;
  std::string timeout;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    std::string name = arg, inlineValue;
    bool hasInline = false;
    if (arg.rfind("--", 0) == 0 && arg.find('=') != std::string::npos) {
      name = arg.substr(0, arg.find('='));
      inlineValue = arg.substr(arg.find('=') + 1);
      hasInline = true;
    }
    if (name == "-h" || name == "--help" || name == "--version") {
      (name == "--version" ? o->version : o->help) = true;
      return true;
    }
    std::string* target = name == "--timeout" ? &timeout : ValueOf(name, o);
    bool isFlag = name == "--strict";
    if (target || isFlag) {
      std::string key = name == "-o" ? "--output" : name;
      if (!seen.insert(key).second) {
        *error = name + " is given twice";
        return false;
      }
    }
    if (isFlag) {
      if (hasInline) {
        *error = name + " takes no value";
        return false;
      }
      o->strict = true;
      continue;
    }
    if (target) {
      if (!hasInline && i + 1 >= argc) {
        *error = name + " needs a value";
        return false;
      }
      *target = hasInline ? inlineValue : argv[++i];
      if (target->empty()) {
        *error = name + " needs a value that is not empty";
        return false;
      }
      if (name == "--server") o->hasServer = true;
      continue;
    }
    if (arg == "--") {
      if (i + 1 < argc && !pageSeen) {
        o->page = argv[++i];
        pageSeen = true;
      }
      if (i + 1 < argc) {
        *error = "only one page can be translated at a time";
        return false;
      }
      continue;
    }
    if (arg.size() > 1 && arg[0] == '-') {
      *error = "unknown option " + arg;
      return false;
    }
    if (pageSeen) {
      *error = "only one page can be translated at a time";
      return false;
    }
    o->page = arg;
    pageSeen = true;
  }
  if (!timeout.empty() && !ParseSeconds(timeout, &o->timeoutSeconds)) {
    *error = "--timeout needs a number of seconds, 0 or more, not " + timeout;
    return false;
  }
  if (!pageSeen) {
    *error = "no page given";
    return false;
  }
  if (o->hasServer && !o->serverOutput.empty()) {
    *error = "give --server or --server-output, not both";
    return false;
  }
  if (o->page == "-" && o->serverOutput == "-") {
    *error = "the page and the server output cannot both come from standard input";
    return false;
  }
  return true;
}

}  // namespace qzhost
