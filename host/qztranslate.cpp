// qztranslate: translates a server page from the command line, with a real
// server doing the server's part, through the translator library loaded as a
// host loads it.
//
// Exit status: 0 on success, 1 when the translation fails (the message on
// standard error says which step and why), 2 for a wrong command line,
// 128 + N when signal N (SIGINT, SIGTERM, SIGHUP) interrupted it. Outputs are
// written only once everything they depend on has succeeded, each whole or
// not at all; an output that is the page or the server output itself is
// refused before anything runs.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Cleanup.h"
#include "CommandLine.h"
#include "Engine.h"
#include "Files.h"
#include "Library.h"
#include "PageEncoding.h"
#include "Preview.h"
#include "PreviewPieces.h"
#include "Server.h"
#include "MergedCheck.h"
#include "TagReplay.h"
#include "TranslationSession.h"

namespace {

using namespace qzhost;

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// The most a server may print. Its output is held in memory, then read as
// UTF-16 and merged, which takes several times as much again; no page's
// output comes near this, while a server that never stops printing would
// take all the memory there is before its time limit.
constexpr size_t kServerOutputLimit = size_t(1) << 30;

int Fail(const std::string& message) {
  std::fprintf(stderr, "qztranslate: %s\n", message.c_str());
  return kExitFailed;
}

int UsageError(const std::string& message) {
  std::fprintf(stderr, "qztranslate: %s\nTry 'qztranslate --help' for more information.\n", message.c_str());
  return kExitUsage;
}

// Prints a warning about the page.
void Warn(const std::string& pageName, const std::string& message) {
  std::fprintf(stderr, "qztranslate: warning: %s: %s\n", pageName.c_str(), message.c_str());
}

// Reads a file ("-": standard input) whole; what names it in messages.
bool ReadBytes(const std::string& path, const std::string& what, std::string* bytes, std::string* error) {
  if (ReadWholeFile(path, bytes, error)) return true;
  *error = "cannot read " + what + " " + *error;
  return false;
}

// Reads the page in its encoding (PageEncoding.h) and warns about what the
// reading found.
bool ReadPage(const Options& o, const Profile& profile, const std::string& pageName, std::u16string* page,
              PageEncoding* encoding, std::string* error) {
  std::string bytes;
  if (!ReadBytes(o.page, "page", &bytes, error)) return false;
  std::vector<std::string> warnings;
  bool ok = DecodePage(bytes, o.encoding, profile.encodingDeclaration, page, encoding, &warnings, error);
  for (const std::string& w : warnings) Warn(pageName, w);
  if (!ok) *error = "page " + pageName + " " + *error;
  return ok;
}

// Decodes the server's output (what names it) in its encoding.
bool ReadOutput(const std::string& bytes, const std::string& what, const PageEncoding& page, const Options& o,
                std::u16string* output, std::string* error) {
  if (DecodeOutput(bytes, page, o.serverEncoding, output, error)) return true;
  *error = what + " " + *error;
  return false;
}

std::string DescribeFailedServer(const std::string& command, double timeout, const ServerRun& run) {
  std::string message = "the server `" + command + "` ";
  if (run.tooMuchOutput) {
    message += "printed more than " + std::to_string(kServerOutputLimit >> 20) +
               " MiB, more than any page gives, and was stopped";
  } else if (run.timedOut) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%g", timeout);
    message += std::string("did not finish within the time limit of ") + seconds +
               " seconds (--timeout) and was stopped";
  } else if (run.signal) {
    message += "was killed by signal " + std::to_string(run.signal) + " (" + strsignal(run.signal) + ")";
  } else if (run.exitStatus == 127) {
    message += "could not be run (exit status 127: command not found?)";
  } else {
    message += "failed with exit status " + std::to_string(run.exitStatus);
  }
  std::string tail = ErrorTail(run.errors);
  if (!tail.empty()) return message + "; its standard error ends with:\n" + tail;
  // Some servers print their errors with the page: PHP does once a page
  // turns display_errors on, as many applications do.
  std::string outputTail = ErrorTail(run.output);
  outputTail.erase(0, std::min(outputTail.size(), outputTail.find_first_not_of("\r\n")));
  if (outputTail.empty()) return message + "; it wrote nothing to its standard error or its standard output";
  return message + "; it wrote nothing to its standard error, and its standard output ends with:\n" + outputTail;
}

// What the command was asked to do, settled before anything is read.
struct Plan {
  const Profile* profile = nullptr;
  std::string serverCommand;  // empty: the server output comes from a file
  bool labelOnly = false;     // --labelled alone: no server, no merge
  OutputTarget merged, labelled, preview;
  bool writesLabelled = false;
  bool writesPreview = false;
};

// Picks the page's profile. Returns -1 to go on, else the exit status.
int PickProfile(const Options& o, const std::string& page, const Profile** profile) {
  if (!o.profile.empty()) {
    *profile = FindProfile(o.profile);
    if (!*profile) return UsageError("unknown profile " + o.profile + " (known: php, erb, asp)");
  } else if (page == "-") {
    return UsageError("a page read from standard input needs --profile php, erb or asp");
  } else {
    *profile = ProfileForPath(page);
    if (!*profile)
      return UsageError("cannot tell the profile from the name " + page + "; give --profile php, erb or asp");
  }
  return -1;
}

// Picks the profile and the server. Returns -1 to go on, else the exit
// status. The asp profile has no server of its own.
int PlanServer(const Options& o, Plan* plan) {
  int status = PickProfile(o, o.page, &plan->profile);
  if (status >= 0) return status;
  plan->labelOnly = !o.hasServer && o.serverOutput.empty() && !o.labelled.empty() && o.output.empty();
  if (plan->labelOnly && !o.preview.empty())
    return UsageError("--preview shows the merged page: give -o, --server or --server-output with --labelled");
  if (plan->labelOnly || !o.serverOutput.empty()) return -1;
  plan->serverCommand = o.hasServer ? o.server : plan->profile->serverCommand;
  if (plan->serverCommand.empty())
    return UsageError("the " + plan->profile->name +
                      " profile has no server of its own: give --server CMD or --server-output FILE, or --labelled "
                      "FILE alone to stop after labelling");
  return -1;
}

// The file an input names, when it is a regular file that an output could
// overwrite.
bool InputFile(const std::string& path, struct stat* st) {
  bool found = path == "-" ? fstat(0, st) == 0 : stat(path.c_str(), st) == 0;
  return found && S_ISREG(st->st_mode);
}

// True when two paths of files not made yet name the same one: the same
// name in the same folder.
bool SameNewFile(const std::string& a, const std::string& b) {
  struct stat folderA, folderB;
  if (stat(FolderOf(a).c_str(), &folderA) != 0 || stat(FolderOf(b).c_str(), &folderB) != 0) return a == b;
  return SameFile(folderA, folderB) && a.substr(a.find_last_of('/') + 1) == b.substr(b.find_last_of('/') + 1);
}

// Refuses an output that is an input, or the other output, whatever names
// and links lead to it.
bool CheckNotSameFile(const Options& o, const Plan& plan, std::string* error) {
  struct Input {
    std::string path, what;
  };
  std::vector<Input> inputs = {{o.page, "the page"}};
  if (!o.serverOutput.empty()) inputs.push_back({o.serverOutput, "the server output"});
  std::vector<std::pair<const OutputTarget*, std::string>> outputs;
  if (!plan.labelOnly) outputs.push_back({&plan.merged, "the merged page"});
  if (plan.writesLabelled) outputs.push_back({&plan.labelled, "the labelled page"});
  if (plan.writesPreview) outputs.push_back({&plan.preview, "the preview"});
  for (const auto& [out, what] : outputs) {
    if (!out->exists || !S_ISREG(out->st.st_mode)) continue;
    for (const Input& in : inputs) {
      struct stat st;
      if (!InputFile(in.path, &st) || !SameFile(st, out->st)) continue;
      *error = "refusing to write " + what + " to " + out->given + ": it is " + in.what + " itself (" +
               (in.path == "-" ? "standard input" : in.path) + ")";
      return false;
    }
  }
  for (size_t i = 0; i < outputs.size(); ++i) {
    for (size_t k = i + 1; k < outputs.size(); ++k) {
      const OutputTarget& a = *outputs[i].first;
      const OutputTarget& b = *outputs[k].first;
      bool same = a.exists && b.exists ? SameFile(a.st, b.st) && (S_ISREG(a.st.st_mode) || a.fd == b.fd)
                                       : !a.exists && !b.exists && SameNewFile(a.path, b.path);
      if (!same) continue;
      *error = "refusing to write " + outputs[k].second + " and " + outputs[i].second + " to the same file, " + b.given;
      return false;
    }
  }
  return true;
}

int Prepare(const Options& o, Plan* plan) {
  int status = PlanServer(o, plan);
  if (status >= 0) return status;
  std::string error;
  if (!o.encoding.empty() && !CheckEncodingName(o.encoding, &error)) return UsageError("--encoding: " + error);
  if (!o.serverEncoding.empty() && !CheckEncodingName(o.serverEncoding, &error))
    return UsageError("--server-encoding: " + error);
  if (!plan->labelOnly && !ResolveOutput(o.output.empty() ? "-" : o.output, &plan->merged, &error))
    return Fail("cannot write the merged page to " + error);
  plan->writesLabelled = !o.labelled.empty();
  if (plan->writesLabelled && !ResolveOutput(o.labelled, &plan->labelled, &error))
    return Fail("cannot write the labelled page to " + error);
  plan->writesPreview = !o.preview.empty();
  if (plan->writesPreview && !ResolveOutput(o.preview, &plan->preview, &error))
    return Fail("cannot write the preview to " + error);
  if (!CheckNotSameFile(o, *plan, &error)) return Fail(error);
  // A named pipe nobody reads must not hold the command longer than a
  // server may.
  plan->merged.waitSeconds = plan->labelled.waitSeconds = plan->preview.waitSeconds = o.timeoutSeconds;
  return -1;
}

// Prints the warnings; under --strict the faults among them are errors.
// Returns how many errors were printed.
int Report(const std::string& pageName, const std::vector<LabelWarning>& warnings, bool strict) {
  int errors = 0;
  for (const LabelWarning& w : warnings) {
    bool error = strict && IsFault(w.kind);
    errors += error ? 1 : 0;
    std::string where = w.pageLine ? "line " + std::to_string(w.pageLine) + ": " : "";
    std::string inOutput = w.outputLine ? " (line " + std::to_string(w.outputLine) + " of the server's output)" : "";
    std::fprintf(stderr, "qztranslate: %s: %s: %s%s%s\n", error ? "error" : "warning", pageName.c_str(),
                 where.c_str(), w.message.c_str(), inOutput.c_str());
  }
  return errors;
}

int StrictFailure(int errors) {
  return Fail("--strict: " + std::to_string(errors) + (errors == 1 ? " problem" : " problems") +
              " with server code or labels; nothing was written");
}

// The server, started while the page is labelled so that its start-up
// overlaps the labelling; ended unused when the command fails before the
// server gets its page.
class EarlyServer {
 public:
  EarlyServer() = default;
  EarlyServer(const EarlyServer&) = delete;
  EarlyServer& operator=(const EarlyServer&) = delete;
  ~EarlyServer() {
    if (started_) AbandonServer(&process_);
  }

  bool Start(const Options& o, const Plan& plan, std::string* error) {
    ServerLimits limits;
    limits.timeoutSeconds = o.timeoutSeconds;
    limits.graceSeconds = kGraceSeconds;
    limits.maxOutputBytes = kServerOutputLimit;
    started_ = StartServer(plan.serverCommand, FolderOf(o.page), &process_, error, limits);
    return started_;
  }

  void Finish(std::string_view input, ServerRun* run) {
    started_ = false;
    FinishServer(&process_, input, run);
  }

 private:
  ServerProcess process_;
  bool started_ = false;
};

// Runs the started server over the labelled page; *output is what it printed.
bool RunTheServer(const Options& o, const Plan& plan, EarlyServer* server, const std::string& labelledBytes,
                  std::string* output, std::string* error) {
  ServerRun run;
  server->Finish(labelledBytes, &run);
  if (!run.Succeeded()) {
    *error = DescribeFailedServer(plan.serverCommand, o.timeoutSeconds, run);
    return false;
  }
  // A server that worked may still have warned; pass that on.
  if (run.errorBytes > run.errors.size())
    std::fprintf(stderr, "qztranslate: the server's standard error, its first %zu bytes left out:\n",
                 run.errorBytes - run.errors.size());
  std::fwrite(run.errors.data(), 1, run.errors.size(), stderr);
  // The command's own lines that follow start lines of their own.
  if (!run.errors.empty() && run.errors.back() != '\n') std::fputc('\n', stderr);
  if (run.stoppedLeftovers)
    std::fprintf(stderr,
                 "qztranslate: warning: the server left processes running (a background child holding its output "
                 "open?); they were stopped\n");
  *output = std::move(run.output);
  return true;
}

// The page's own characters that its encoding cannot write back may stand
// outside server code, where a character reference shows them as well, but
// not inside it, where a reference would change the code.
bool CheckWritable(const TranslationSession& session, const std::string& pageName, const PageEncoding& encoding,
                   std::string* error) {
  size_t line = session.ServerCodeLine(encoding.unwritable);
  if (line == 0) return true;
  *error = "page " + pageName + ": line " + std::to_string(line) + " holds, in server code, a character that " +
           encoding.name + " cannot write back, so the server and the merged page would get other code; give "
           "--encoding NAME for an encoding that holds it";
  return false;
}

int Translate(const Options& o) {
  Plan plan;
  int status = Prepare(o, &plan);
  if (status >= 0) return status;
  std::string pageName = o.page == "-" ? "standard input" : o.page;

  std::string error, outputBytes;
  std::u16string page, output;
  PageEncoding encoding;
  if (!ReadPage(o, *plan.profile, pageName, &page, &encoding, &error)) return Fail(error);
  if (!o.serverOutput.empty() &&
      (!ReadBytes(o.serverOutput, "server output", &outputBytes, &error) ||
       !ReadOutput(outputBytes, "server output " + (o.serverOutput == "-" ? "on standard input" : o.serverOutput),
                   encoding, o, &output, &error)))
    return Fail(error);
  std::string().swap(outputBytes);

  Engine engine;
  std::string library = o.library.empty() ? DefaultLibraryPath() : o.library;
  if (!LoadTranslatorLibrary(library, engine, &error)) return Fail(error);

  EarlyServer server;
  if (!plan.labelOnly && !plan.serverCommand.empty() && !server.Start(o, plan, &error)) return Fail(error);
  TranslationSession session(engine, *plan.profile);
  std::u16string labelled;
  if (!session.Start(&error) || !session.Label(std::move(page), &labelled, &error))
    return Fail("labelling the page failed: " + error);
  if (!CheckWritable(session, pageName, encoding, &error)) return Fail(error);
  int errors = Report(pageName, session.Warnings(), o.strict);
  if (errors > 0) return StrictFailure(errors);
  std::string labelledBytes = EncodePage(labelled, encoding);
  // From here on only the bytes are needed; a translation holds few copies
  // of the page at a time.
  std::u16string().swap(labelled);
  if (plan.labelOnly) {
    if (!WriteOutput(plan.labelled, labelledBytes, &error)) return Fail("cannot write the labelled page to " + error);
    return 0;
  }

  if (!plan.serverCommand.empty() &&
      (!RunTheServer(o, plan, &server, labelledBytes, &outputBytes, &error) ||
       !ReadOutput(outputBytes, "the server's output", encoding, o, &output, &error)))
    return Fail(error);
  std::string().swap(outputBytes);
  // The labelled page's bytes are written last, with the merged page, or
  // not at all: the merge's peak should not hold them for nothing.
  if (!plan.writesLabelled) std::string().swap(labelledBytes);
  LabelReport report = session.Check(output);
  errors = Report(pageName, report.warnings, o.strict);
  if (errors > 0) return StrictFailure(errors);

  std::u16string merged;
  if (!session.Merge(std::move(output), &merged, &error)) return Fail(error);
  std::vector<LabelWarning> cut = CheckMergedCode(session.Page(), merged);
  errors = Report(pageName, cut, o.strict);
  if (errors > 0) return StrictFailure(errors);
  report.warnings.insert(report.warnings.end(), cut.begin(), cut.end());
  // Files are replaced together or not at all: a write that fails leaves
  // the ones before it as they were too.
  OutputBatch outputs;
  if (plan.writesPreview &&
      !outputs.Add(plan.preview, RenderPreview(PreviewOfTranslation(pageName, report, session.Warnings(), merged)),
                   &error))
    return Fail("cannot write the preview to " + error);
  if (plan.writesLabelled && !outputs.Add(plan.labelled, labelledBytes, &error))
    return Fail("cannot write the labelled page to " + error);
  if (!outputs.Add(plan.merged, EncodePage(merged, encoding), &error))
    return Fail("cannot write the merged page to " + error);
  if (!outputs.Commit(&error)) return Fail("cannot write " + error);
  return 0;
}

// Replays each page's open-tag tracking and prints what it finds (TagReplay.h):
// errors for what makes a merge fail, warnings for the rest. Status 1 when a
// page would fail or could not be read, else 0.
int CheckPages(const Options& o) {
  std::vector<const Profile*> profiles(o.pages.size());
  for (size_t i = 0; i < o.pages.size(); ++i) {
    int status = PickProfile(o, o.pages[i], &profiles[i]);
    if (status >= 0) return status;
  }
  std::string error;
  if (!o.encoding.empty() && !CheckEncodingName(o.encoding, &error)) return UsageError("--encoding: " + error);
  int worst = 0;
  for (size_t i = 0; i < o.pages.size(); ++i) {
    Options one = o;
    one.page = o.pages[i];
    std::string pageName = one.page == "-" ? "standard input" : one.page;
    std::u16string page;
    PageEncoding encoding;
    if (!ReadPage(one, *profiles[i], pageName, &page, &encoding, &error)) {
      worst = Fail(error);
      continue;
    }
    PlaceTable places(page);
    for (const ElementFinding& f : ReplayServerElements(page, *profiles[i])) {
      worst = f.breaksMerge ? kExitFailed : worst;
      std::fprintf(stderr, "qztranslate: %s: %s: line %zu: %s\n", f.breaksMerge ? "error" : "warning",
                   pageName.c_str(), places.At(FindingOffset(f)).line, DescribeFinding(f, places).c_str());
    }
  }
  return worst;
}

int PrintVersion(const Options& o) {
  std::printf("qztranslate %s\n", QZ_COMMAND_VERSION);
  Engine engine;
  std::string library = o.library.empty() ? DefaultLibraryPath() : o.library, error;
  if (!LoadTranslatorLibrary(library, engine, &error)) return Fail(error);
  std::string id = LibraryBuildId(library);
  std::printf("library %s, build %s\n", library.c_str(), id.empty() ? "(no build ID)" : id.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  InstallInterruptHandlers();
  Options options;
  std::string error;
  if (!ParseCommandLine(argc, argv, &options, &error)) return UsageError(error);
  if (options.help) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (options.version) return PrintVersion(options);
  return options.check ? CheckPages(options) : Translate(options);
}
