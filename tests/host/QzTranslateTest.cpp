// The qztranslate command as a user runs it: exit statuses, messages, files
// left behind, and the one-step and two-step ways of translating.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "CommandFolder.h"

using namespace qzhost;

namespace {

class QzTranslateTest : public CommandFolder {
 protected:
  // How many files the folder holds, hidden ones too.
  long Files() { return std::distance(std::filesystem::directory_iterator(folder), {}); }

  // Starts qztranslate with the arguments, its outputs thrown away (and
  // SIGHUP ignored, as nohup leaves it, when asked), and returns its process
  // id.
  pid_t Start(std::vector<std::string> args, bool bIgnoreHangUp = false) {
    pid_t pid = fork();
    if (pid != 0) return pid;
    if (bIgnoreHangUp) signal(SIGHUP, SIG_IGN);
    int null = open("/dev/null", O_RDWR);
    dup2(null, 0);
    dup2(null, 1);
    dup2(null, 2);
    std::vector<char*> argv = {const_cast<char*>(QZ_TRANSLATE_PATH)};
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(QZ_TRANSLATE_PATH, argv.data());
    _exit(127);
  }

  // The exit status of the started command.
  static int Status(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // Runs the command, which must fail with status (2 for a wrong command
  // line, which also gives the one-line hint) and a message that says says
  // (and also), printing nothing.
  void Fails(std::initializer_list<std::string> args, int status, const std::string& says,
             const std::string& also = "") {
    ServerRun run = Command(args);
    EXPECT_EQ(run.exitStatus, status) << says;
    EXPECT_TRUE(Has(run.errors, says) && Has(run.errors, also)) << run.errors;
    EXPECT_EQ(Has(run.errors, "\nTry 'qztranslate --help' for more information.\n"), status == 2) << says;
    EXPECT_FALSE(Has(run.errors, "usage:")) << says;
    EXPECT_EQ(run.output, "") << says;
  }
};

}  // namespace

TEST_F(QzTranslateTest, WrongCommandLinesGetAHintAndStatusTwo) {
  // Found before the page is read, which need not exist.
  std::string page = Path("page.php");
  Fails({}, 2, "no page given");
  Fails({"--frobnicate", page}, 2, "unknown option --frobnicate");
  Fails({"--server", "cat", "--server-output", page, page}, 2, "not both");
  Fails({"--profile", "jsp", page}, 2, "unknown profile jsp");
  Fails({Path("page.txt")}, 2, "cannot tell the profile");
  Fails({Path("page")}, 2, "cannot tell the profile");
  Fails({page, page}, 2, "only one page");
  Fails({page, "--labelled"}, 2, "--labelled needs a value");
  Fails({"--profile", "ASP", page}, 2, "asp profile has no server of its own");  // names in any case
  Fails({"--profile", "asp", "--labelled", Path("l.aspx"), "-o", Path("o.html"), page}, 2, "no server of its own");
  Fails({"-o", Path("a"), "--output", Path("b"), page}, 2, "--output is given twice");
  Fails({"--strict", "--strict", page}, 2, "--strict is given twice");
  Fails({"--timeout", "soon", page}, 2, "--timeout needs a number of seconds");
  Fails({"--timeout=-1", page}, 2, "--timeout needs a number of seconds");
  Fails({"-"}, 2, "a page read from standard input needs --profile");
  Fails({"--profile", "php", "--server-output", "-", "-"}, 2, "cannot both come from standard input");
  Fails({"--encoding", "no-such", page}, 2, "--encoding: unknown encoding no-such");
  Fails({"--server-encoding", "UTF-32LE", page}, 2, "UTF-32 is not supported");
  Fails({"--check", "--server", "cat", page}, 2, "--check takes only --profile and --encoding, not --server");
  Fails({"--check", "--profile", "asp", "-", page, "-"}, 2, "standard input can be read only once");
  Fails({"--check", "--encoding", "no-such", page}, 2, "--encoding: unknown encoding no-such");
  Fails({"--check", page, Path("page.txt")}, 2, "cannot tell the profile from the name " + Path("page.txt"));
  Fails({"--timeout=", page}, 2, "--timeout needs a value that is not empty");
  Fails({"--timeout", "inf", page}, 2, "--timeout needs a number of seconds");
  Fails({"--strict=yes", page}, 2, "--strict takes no value");
  Fails({"--", "-x.php", "--", page}, 2, "only one page");
  EXPECT_EQ(Files(), 0);
  ServerRun help = Command({"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_TRUE(Has(help.output, "usage: qztranslate") && Has(help.output, "128+N"));
  EXPECT_TRUE(Has(Command({"-h"}).output, "usage: qztranslate"));
  ServerRun version = Command({"--version"});
  EXPECT_EQ(version.exitStatus, 0);
  EXPECT_TRUE(Has(version.output, "qztranslate 1.") && Has(version.output, "libServerTranslator.so, build "))
      << version.output;
}

TEST_F(QzTranslateTest, FailuresSayWhy) {
  // Pages that cannot be read or decoded.
  Fails({Path("missing.php")}, 1, Path("missing.php") + ": No such file or directory");
  Fails({"--profile", "php", folder}, 1, "Is a directory");
  Write("bad.php", "<meta charset=\"utf-8\"><p>ok</p>\n<p>\xC3\x28</p>");
  Fails({Path("bad.php")}, 1,
        "page " + Path("bad.php") +
            " is not valid utf-8 (declared by <meta charset> on line 1): bad byte sequence at byte offset 35 (line 2)");
  Write("nul.php", std::string("<p>\0</p>", 8));
  Fails({Path("nul.php")}, 1, "NUL character at byte offset 3");

  // Servers that fail, with their status and the tail of their standard
  // error, or whose output cannot be read or decoded.
  Write("page.php", "<p><?= 1 ?></p>");
  Fails({"--server-output", Path("gone.html"), Path("page.php")}, 1, "cannot read server output");
  Fails({"--server", "cat >/dev/null; echo 'PHP Fatal error: boom' >&2; exit 4", Path("page.php")}, 1,
        "failed with exit status 4; its standard error ends with:\nPHP Fatal error: boom");
  // A server that prints its error with the page, as PHP does once the page
  // turns display_errors on (GOsa's pages do): the end of its output says why.
  Write("shown.php", "<?php ini_set('display_errors', '1'); require 'no-such-include-qz.php'; ?><p>x</p>");
  if (system("command -v php >/dev/null") == 0) {
    ServerRun shown = Command({Path("shown.php")});
    EXPECT_EQ(shown.exitStatus, 1);
    EXPECT_TRUE(Has(shown.errors, "failed with exit status 255; it wrote nothing to its standard error, and its "
                                  "standard output ends with:\n<!--QZVX 0 -->\nWarning: require(no-such-include-qz.php)") &&
                Has(shown.errors, "Fatal error: Uncaught Error: Failed opening required 'no-such-include-qz.php'"))
        << shown.errors;
  }
  Fails({"--server", "cat >/dev/null; echo '<p>Fatal error: boom</p>'; exit 3", Path("page.php")}, 1,
        "failed with exit status 3; it wrote nothing to its standard error, and its standard output ends with:\n"
        "<p>Fatal error: boom</p>");
  Fails({"--server", "cat >/dev/null; exit 3", Path("page.php")}, 1,
        "failed with exit status 3; it wrote nothing to its standard error or its standard output");
  Fails({"--server", "no-such-server-qz", Path("page.php")}, 1, "could not be run (exit status 127");
  Fails({"--server", "kill -9 $$", Path("page.php")}, 1, "killed by signal 9");
  Fails({"--server", "printf 'ok\\n\\377'", Path("page.php")}, 1,
        "server's output is not valid UTF-8: bad byte sequence at byte offset 3 (line 2)");
  // A library that cannot be loaded or is not the translator.
  const std::string build = FolderOf(QZ_TRANSLATE_PATH);
  Fails({"--library", Path("none.so"), "--server", "cat", Path("page.php")}, 1, "cannot load the translator library");
  Fails({"--library", build + "/libchar16.so", "--server", "cat", Path("page.php")}, 1,
        "has no entry function QZ_InitWrapper");
  Fails({"--check", Path("GONE.ASPX")}, 1, Path("GONE.ASPX") + ": No such file or directory");
  Fails({"--server", "cat", "--labelled", Path("no/l.php"), Path("page.php")}, 1, "cannot write the labelled page");
  // Outputs that take no bytes.
  Fails({"--labelled", "/dev/full", Path("page.php")}, 1, "cannot write the labelled page to /dev/full: No space");
  Fails({"--server", "cat", "--labelled", "/dev/full", "-o", Path("o"), Path("page.php")}, 1, "the labelled page");
  Fails({"--server", "cat", "--preview", "/dev/full", "-o", Path("o"), Path("page.php")}, 1, "write the preview");
  Fails({"--server", "cat", "-o", "/dev/full", Path("page.php")}, 1, "cannot write the merged page to /dev/full");
  // The preview, which shows the merged page, is written with it or not at all.
  const std::string aspx = std::string(QZ_EXAMPLES_DIR) + "/hello.aspx", answer = aspx + ".server-output.html";
  Fails({"--preview", Path("p.html"), "--labelled", Path("l.aspx"), aspx}, 2, "--preview shows the merged page");
  Fails({"--preview", Path("p.html"), "-o", Path("p.html"), "--server-output", answer, aspx}, 1, "the same file");
  Fails({"--preview", "-", "--server-output", answer, aspx}, 1, "the same file");
  Fails({"--preview", Path("p.html"), "--server", "false", aspx}, 1, "failed with exit status 1");
  Fails({"--preview", Path("no/p.html"), "--server-output", answer, aspx}, 1, "cannot write the preview to");
  EXPECT_FALSE(std::filesystem::exists(Path("p.html"))) << "a preview left behind";
  ServerRun previewed = Command({"--preview", Path("p.html"), "-o", Path("m.html"), "--server-output", answer, aspx});
  EXPECT_EQ(previewed.exitStatus, 0) << previewed.errors;
  const std::string preview = Read("p.html");
  EXPECT_TRUE(Has(preview, "<title>Preview of hello.aspx</title>") && Has(preview, "qz-entry qz-piece\" tabindex"));
  EXPECT_EQ(Command({"--library", Path("none.so"), "--version"}).exitStatus, 1);
  ServerRun unnumbered = Command({"--library", QZ_MISBEHAVING_LIBRARY_PATH, "--version"});
  EXPECT_EQ(unnumbered.exitStatus, 0);
  EXPECT_TRUE(Has(unnumbered.output, "build (no build ID)")) << unnumbered.output;

  // Merges the library rejects: the server stopped in the middle of the
  // directive's output; the page leaves an element whose content is not
  // HTML open.
  Write("page.php", "<p>\n<?= 1 ?></p>");
  Write("out.html", "<p>\n<!--QZVX 0 -->1");
  Fails({"--server-output", Path("out.html"), Path("page.php")}, 1,
        "rejected the merge", "label 0 (line 2 of the page) produced output whose closing label never came back");
  Write("open.aspx", "<p>a</p>\n<div runat=\"server\"><p>x</p>");
  Fails({"--server", "cat", Path("open.aspx")}, 1, "label 0 (line 2 of the page) has no end in the page itself");
}

TEST_F(QzTranslateTest, OutputFilesAreWrittenWholeOrNotAtAll) {
  std::string page = "<p><?= 1 ?></p>\n<p class=\"x>rest";
  Write("page.php", page);
  Write("out.html", "previous");
  Fails({"--server", "exit 1", "-o", Path("out.html"), Path("page.php")}, 1, "failed with exit status 1");
  EXPECT_EQ(Read("out.html"), "previous");
  EXPECT_EQ(Files(), 2) << "no temporary file left";

  // A tag cut off by the end of the page is warned about, and the page
  // translated all the same.
  ServerRun ok = Command({"--server", "cat", "-o", Path("out.html"), Path("page.php")});
  EXPECT_EQ(ok.exitStatus, 0) << ok.errors;
  EXPECT_EQ(ok.output, "");
  EXPECT_TRUE(Has(ok.errors, "warning: " + Path("page.php") + ": line 2: the tag `<p class=\"x>rest` has no \">\""))
      << ok.errors;
  EXPECT_EQ(Read("out.html"), page);
  EXPECT_EQ(Files(), 2);

  // Found before the server runs.
  Fails({"--server", "touch ran; cat", "-o", Path("no/such/dir/out.html"), Path("page.php")}, 1,
        "cannot write the merged page to " + Path("no/such/dir/out.html") + ": No such file or directory");
  EXPECT_EQ(Files(), 2);
}

TEST_F(QzTranslateTest, AnOutputThatIsAnInputIsRefusedBeforeTheServerRuns) {
  Write("page.php", "<p><?= 1 ?></p>");
  Write("answer.html", "<p><!--QZVX 0 -->1<!--QZVX 1 --></p>");
  std::filesystem::create_symlink("page.php", Path("link.php"));
  std::filesystem::create_hard_link(Path("page.php"), Path("second.php"));
  std::string server = "touch " + Path("ran") + "; cat";
  std::string otherFolder = folder + std::string("/../") + std::filesystem::path(folder).filename().string();
  std::string other = otherFolder + "/page.php";
  Fails({"--server", server, "-o", Path("link.php"), Path("page.php")}, 1,
        "refusing to write the merged page to " + Path("link.php") + ": it is the page itself");
  Fails({"--server", server, "-o", other, Path("page.php")}, 1, "it is the page itself");
  Fails({"--server", server, "--labelled", Path("second.php"), Path("page.php")}, 1,
        "refusing to write the labelled page to " + Path("second.php") + ": it is the page itself");
  Fails({"--server-output", Path("answer.html"), "-o", Path("answer.html"), Path("page.php")}, 1,
        "it is the server output itself");
  Fails({"--server", server, "-o", Path("same.html"), "--labelled", otherFolder + "/same.html", Path("page.php")}, 1,
        "the labelled page and the merged page to the same file");
  EXPECT_FALSE(std::filesystem::exists(Path("ran"))) << "the server never ran";
  EXPECT_EQ(Read("page.php"), "<p><?= 1 ?></p>");
  EXPECT_EQ(Files(), 4);
}

TEST_F(QzTranslateTest, StandardInputAndOutputAndBothOutputsAtOnce) {
  ServerRun piped = Command({"--profile", "php", "--labelled", "-", "-"}, "<b><?= 1 ?></b>");
  EXPECT_EQ(piped.exitStatus, 0) << piped.errors;
  EXPECT_EQ(piped.output, "<b><!--QZVX 0 --><?= 1 ?><!--QZVX 1 --></b>");
  ServerRun merged = Command({"--profile", "php", "--server", "cat", "-o", "-", "-"}, "<b><?= 1 ?></b>");
  EXPECT_EQ(merged.output, "<b><?= 1 ?></b>");
  Fails({"--profile", "php", "--server", "cat", "--labelled", "-", "-o", "/dev/stdout", Path("x.php")}, 1,
        "to the same file");
  // The page read from standard input is no output either. A server that
  // works but writes much to its standard error, and leaves a process
  // behind: both are passed on. Regression: the warning followed the
  // server's last line of errors on the same line when that had no end.
  Write("in.php", "<b><?= 1 ?></b>");
  ServerRun run;
  std::string error, command = std::string(QZ_TRANSLATE_PATH) + " --profile php --server ";
  ASSERT_TRUE(RunServer(command + "cat -o " + Path("in.php") + " - <" + Path("in.php"), "/", "", &run, &error));
  EXPECT_TRUE(Has(run.errors, "it is the page itself (standard input)")) << run.errors;
  ASSERT_TRUE(RunServer(command + "cat -o " + Path("o") + " " + Path("in.php") + " <&- >&-; echo $?", "/", "", &run,
                        &error));
  EXPECT_EQ(run.output + Read("o"), "0\n<b><?= 1 ?></b>") << "started without standard input and output";
  ServerRun answer = Command({"--server-output", "-", Path("in.php")}, "<b><!--QZVX 0 -->1<!--QZVX 1 --></b>");
  EXPECT_TRUE(Has(answer.output, "<qz:invisible><?= 1 ?></qz:invisible>")) << "the answer on standard input";
  std::string chatty = "'cat; head -c 70000 /dev/zero | tr \\\\0 e >&2; sleep 30 &' - <" + Path("in.php");
  ASSERT_TRUE(RunServer(command + chatty + " 2>&1 >/dev/null | grep -v ^eee", "/", "", &run, &error));
  EXPECT_EQ(run.output, "qztranslate: the server's standard error, its first 4464 bytes left out:\n"
                        "qztranslate: warning: the server left processes running (a background child holding its "
                        "output open?); they were stopped\n");
  // With -o as well, --labelled does not stop the command: the profile's
  // own server runs and both pages are written.
  if (system("command -v php >/dev/null") != 0) GTEST_SKIP() << "php is not installed";
  Write("page.php", "<b><?= 6 * 7 ?></b>");
  ServerRun both = Command({"--labelled", Path("l.php"), "-o", Path("o.html"), Path("page.php")});
  EXPECT_EQ(both.exitStatus, 0) << both.errors;
  EXPECT_EQ(Read("l.php"), "<b><!--QZVX 0 --><?= 6 * 7 ?><!--QZVX 1 --></b>");
  EXPECT_TRUE(Has(Read("o.html"), ">42</font></qz:lock></b>")) << Read("o.html");
}

TEST_F(QzTranslateTest, InterruptionsAndTimeLimitsLeaveNothingBehind) {
  // A large write interrupted the moment its temporary file appears: the
  // file goes with the command, which exits with 128 + SIGTERM.
  Write("big.php", "<p><?= 1 ?></p>" + std::string(8 << 20, 'x'));
  int status = 0;
  for (int attempt = 0; attempt < 3 && status != 128 + SIGTERM; ++attempt) {
    int watch = inotify_init1(IN_CLOEXEC);
    inotify_add_watch(watch, folder, IN_CREATE);
    pid_t pid = Start({"--server", "cat", "-o", Path("big.html"), Path("big.php")});
    char events[4096];
    for (bool seen = false; !seen;) {
      struct pollfd ready = {watch, POLLIN, 0};
      if (poll(&ready, 1, 5000) != 1) break;
      ssize_t n = read(watch, events, sizeof events);
      for (ssize_t at = 0; at < n;) {
        auto* e = reinterpret_cast<inotify_event*>(events + at);
        seen = seen || std::string(e->name).rfind(".qz", 0) == 0;
        at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
      }
    }
    kill(pid, SIGTERM);
    status = Status(pid);
    close(watch);
    std::filesystem::remove(Path("big.html"));
  }
  EXPECT_EQ(status, 128 + SIGTERM);
  EXPECT_EQ(Files(), 1) << "only the page is left";

  // Interrupted while the server runs, and a server past its time limit:
  // each ends within the grace, and so does every process of the server.
  Write("page.php", "<p><?= 1 ?></p>");
  std::string server = "echo $$ >" + Path("pids") + "; sleep 30 & echo $! >>" + Path("pids") + "; exec sleep 30";
  auto pids = [&] {
    std::vector<pid_t> all;
    std::ifstream file(Path("pids"));
    for (long pid; file >> pid;) all.push_back(static_cast<pid_t>(pid));
    return all;
  };
  auto allGone = [&] {
    for (pid_t pid : pids())
      if (kill(pid, 0) == 0) return false;
    return pids().size() == 2;
  };
  auto begin = std::chrono::steady_clock::now();
  pid_t pid = Start({"--server", server, Path("page.php")});
  while (pids().size() < 2 && std::chrono::steady_clock::now() - begin < std::chrono::seconds(2))
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  kill(pid, SIGINT);
  EXPECT_EQ(Status(pid), 128 + SIGINT);
  EXPECT_TRUE(allGone());
  EXPECT_EQ(Status(Start({"--server", "kill -HUP $PPID; cat", "-o", Path("hup.html"), Path("page.php")}, true)), 0)
      << "a hang-up the command was started to ignore";
  std::filesystem::remove(Path("hup.html"));
  ServerRun late = Command({"--timeout", "0.3", "--server", server, Path("page.php")});
  EXPECT_EQ(late.exitStatus, 1);
  EXPECT_TRUE(Has(late.errors, "did not finish within the time limit of 0.3 seconds (--timeout)")) << late.errors;
  EXPECT_TRUE(allGone());
  EXPECT_EQ(Files(), 3);
}

TEST_F(QzTranslateTest, StrictRefusesAMergeThatWouldLoseServerCode) {
  Write("page.php", "<h1><?= 1 ?></h1>\n<p><?= 2 ?></p>");
  Write("answer.html", "<h1><!--QZVX 0 -->1<!--QZVX 1 --></h1>\n<p>2</p>");
  ServerRun lenient = Command({"--server-output", Path("answer.html"), "-o", Path("out.html"), Path("page.php")});
  EXPECT_EQ(lenient.exitStatus, 0);
  EXPECT_TRUE(Has(lenient.errors, "qztranslate: warning: " + Path("page.php") +
                                      ": line 2: the server code `<?= 2 ?>` would be missing from the merged page"))
      << lenient.errors;
  EXPECT_EQ(Read("out.html"), "<h1><qz:lock code=\"%3C?=%201%20?%3E\"><qz:invisible><?= 1 ?></qz:invisible>"
                              "<font hilitecolor=\"Dyn Up-to-Date Color\">1</font></qz:lock></h1>\n<p>2</p>");
  std::filesystem::remove(Path("out.html"));
  Fails({"--strict", "--server-output", Path("answer.html"), "-o", Path("out.html"), "--labelled", Path("l.php"),
         Path("page.php")},
        1, "qztranslate: error: " + Path("page.php") + ": line 2: the server code `<?= 2 ?>` would be missing",
        "--strict: 1 problem with server code or labels; nothing was written");
  Write("cut.php", "<p class=\"<?= 1 ?>\n<p class=\"<?= 2 ?>");
  Fails({"--strict", "--server", "cat", Path("cut.php")}, 1, "error: " + Path("cut.php") + ": line 1: the tag",
        "--strict: 1 problem");
  Write("two.php", "<h1><?= 1 ?></h1>\n<p><?= 2 ?></p>\n<p><?= 3 ?></p>");
  Fails({"--strict", "--server-output", Path("answer.html"), Path("two.php")}, 1, "line 3: the server code `<?= 3 ?>`",
        "--strict: 2 problems");
  // A page left open at the end is no fault: --strict warns and writes.
  Write("open.php", "<p><?= 1 ?></p><!-- note");
  ServerRun open = Command({"--strict", "--server", "cat", "-o", Path("out.html"), Path("open.php")});
  EXPECT_EQ(open.exitStatus, 0) << open.errors;
  EXPECT_TRUE(Has(open.errors, "qztranslate: warning: " + Path("open.php") + ": line 1: `<!-- note` is not closed"))
      << open.errors;
  EXPECT_EQ(Files(), 6);
}

TEST_F(QzTranslateTest, TranslatesThroughPhpInOneStepOrTwo) {
  if (system("command -v php >/dev/null") != 0) GTEST_SKIP() << "php is not installed";
  // A byte order mark is accepted and the include is found from the page's
  // own folder, though the command runs elsewhere.
  Write("site/page.php", "\xEF\xBB\xBF<b class=\"<?= 'x' ?>\"><?php include 'inc/name.php'; ?></b>");
  Write("site/inc/name.php", "<i>Ada</i>");
  ServerRun oneStep = Command({Path("site/page.php")});
  ASSERT_EQ(oneStep.exitStatus, 0) << oneStep.errors;
  EXPECT_TRUE(Has(oneStep.output, "<qz:lock code=\"%3C?php%20include%20'inc/name.php';%20?%3E\">") &&
              Has(oneStep.output, ">Ada</i></qz:lock></b>")) << oneStep.output;

  ServerRun label = Command({"--labelled", Path("labelled.php"), Path("site/page.php")});
  ASSERT_EQ(label.exitStatus, 0) << label.errors;
  EXPECT_EQ(label.output, "") << "labelling alone merges nothing";
  std::string remote = "cd " + Path("site") + " && php -d display_errors=stderr <../labelled.php >../out.html";
  ASSERT_EQ(system(remote.c_str()), 0);
  ServerRun merge = Command({"--server-output", Path("out.html"), "-o", Path("merged.html"), Path("site/page.php")});
  ASSERT_EQ(merge.exitStatus, 0) << merge.errors;
  EXPECT_EQ(Read("merged.html"), oneStep.output);

  // "?>" in a PHP string or heredoc does not end the code (Real pages do
  // this: '<?xml version="1.0" ?>'): no label goes inside the string, so php
  // runs the page's own program and the piece comes back whole, no warning.
  Write("xml.php", "<p>a</p>\n<?php $x = '<?xml version=\"1.0\" ?>'; $h = <<<EOT\n?> it's\nEOT;\n"
                   "echo '<b>' . strlen($x) . strlen($h) . '</b>'; ?>\n<p><?= 2 ?></p>\n");
  ServerRun xml = Command({Path("xml.php")});
  ASSERT_EQ(xml.exitStatus, 0) << xml.errors;
  EXPECT_EQ(xml.errors, "");
  EXPECT_TRUE(Has(xml.output, "<b qzTranslatedValue=\"hilitecolor=%22Dyn%20Up-to-Date%20Color%22\">227</b></qz:lock>\n"
                              "<p><qz:lock")) << xml.output;

  // The demo page, as the README translates it.
  ServerRun demo = Command({std::string(QZ_EXAMPLES_DIR) + "/hello.php"});
  ASSERT_EQ(demo.exitStatus, 0) << demo.errors;
  EXPECT_EQ(demo.errors, "");
  EXPECT_TRUE(Has(demo.output, "<qz:lock code=\"%3C?php%20include%20%22inc/footer.php%22;%20?%3E\">") &&
              Has(demo.output, "qzTranslatedValue=\"class=visitor  hilitecolor=") &&
              Has(demo.output, "<font hilitecolor=\"Dyn Up-to-Date Color\">Ada</font>")) << demo.output;
  EXPECT_FALSE(Has(demo.output, "QZVX") || Has(demo.output, "qzvx")) << "no label left behind";

  // Code written against a tag's name that printed nothing: the merge puts
  // the tag's attribute into it, which the command must not pass in silence.
  Write("glued.php", "<?php if (0) { ?><style<?= $t ?>>p{}</style><?php } ?>\n");
  ServerRun glued = Command({Path("glued.php")});
  EXPECT_EQ(glued.exitStatus, 0);
  EXPECT_TRUE(Has(glued.errors, "warning: " + Path("glued.php") + ": line 1: the server code written against a "
                                "tag's name in `<style<?=...` is cut")) << glued.errors;
  ServerRun strict = Command({"--strict", "-o", Path("glued.html"), Path("glued.php")});
  EXPECT_EQ(strict.exitStatus, 1) << strict.errors;
  EXPECT_FALSE(std::filesystem::exists(Path("glued.html")));
}

// The command lets go of each copy of the page as soon as the translation
// no longer needs it (the page's bytes, the labelled page's bytes, the
// server's output bytes), so that its peak stays a small multiple of the
// page: about ten times the page's UTF-16 bytes, most of it the merge's
// stages. A copy released in name only (an empty string assigned to a
// string keeps the old one's memory) put it at fourteen.
TEST_F(QzTranslateTest, HoldsFewCopiesOfThePageAtATime) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's own memory would be measured";
#endif
  std::string page;
  for (int row = 0; page.size() < (size_t{2} << 20); ++row)
    page += "<tr><td class=\"<?= $c ?>\"><?php echo " + std::to_string(row) + "; ?></td><td>plain text of row " +
            std::to_string(row) + "</td></tr>\n";
  Write("page.php", page);
  ServerRun label = Command({"--labelled", Path("labelled.php"), Path("page.php")});
  ASSERT_EQ(label.exitStatus, 0) << label.errors;
  // The tiny page's peak is the fixed part: code, libraries, ICU's data.
  Write("tiny.php", "<?= 1 ?>");
  auto peakOf = [&](std::vector<std::string> args) {
    pid_t pid = Start(std::move(args));
    int status = 0;
    struct rusage usage = {};
    EXPECT_EQ(wait4(pid, &status, 0, &usage), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    return static_cast<double>(usage.ru_maxrss) * 1024;  // kilobytes
  };
  double fixed = peakOf({"--server-output", Path("tiny.php"), "-o", Path("tiny.html"), Path("tiny.php")});
  double peak = peakOf({"--server-output", Path("labelled.php"), "-o", Path("merged.html"), Path("page.php")});
  ASSERT_EQ(Read("merged.html"), page) << "an unchanged output merges back into the page";
  EXPECT_LT((peak - fixed) / (2.0 * static_cast<double>(page.size())), 10.0)
      << "peak " << peak / 1e6 << " MB, of which fixed " << fixed / 1e6 << " MB, for a page of " << page.size()
      << " bytes";
}
