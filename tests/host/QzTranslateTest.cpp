// The qztranslate command as a user runs it: exit statuses, messages, files
// left behind, and the one-step and two-step ways of translating.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "Files.h"
#include "Server.h"

using namespace qzhost;

namespace {

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class QzTranslateTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(mkdtemp(folder), nullptr); }
  void TearDown() override { std::filesystem::remove_all(folder); }

  std::string Path(const std::string& name) { return folder + ("/" + name); }

  void Write(const std::string& name, const std::string& bytes) {
    std::filesystem::create_directories(FolderOf(Path(name)));
    std::ofstream(Path(name), std::ios::binary) << bytes;
  }

  // The file's bytes, or "(unreadable)".
  std::string Read(const std::string& name) {
    std::string bytes, error;
    return ReadWholeFile(Path(name), &bytes, &error) ? bytes : "(unreadable)";
  }

  // How many files the folder holds, hidden ones too.
  long Files() { return std::distance(std::filesystem::directory_iterator(folder), {}); }

  // Runs qztranslate with the arguments (each quoted) from the root folder,
  // so that only the page's own folder can make relative paths work.
  ServerRun Command(std::initializer_list<std::string> args) {
    std::string line = QZ_TRANSLATE_PATH;
    for (std::string a : args) {
      for (size_t at = 0; (at = a.find('\'', at)) != std::string::npos; at += 4) a.replace(at, 1, "'\\''");
      line += " '" + a + "'";
    }
    ServerRun run;
    std::string error;
    EXPECT_TRUE(RunServer(line, "/", "", &run, &error)) << error;
    return run;
  }

  // Runs the command, which must fail with status (2 for a wrong command
  // line, which also shows the usage) and a message that says says (and
  // also), printing nothing.
  void Fails(std::initializer_list<std::string> args, int status, const std::string& says,
             const std::string& also = "") {
    ServerRun run = Command(args);
    EXPECT_EQ(run.exitStatus, status) << says;
    EXPECT_TRUE(Has(run.errors, says) && Has(run.errors, also)) << run.errors;
    EXPECT_EQ(Has(run.errors, "usage: qztranslate"), status == 2) << says;
    EXPECT_EQ(run.output, "") << says;
  }

  char folder[21] = "/tmp/qzcommandXXXXXX";
};

}  // namespace

TEST_F(QzTranslateTest, WrongCommandLinesGetUsageAndStatusTwo) {
  // Found before the page is read, which need not exist.
  std::string page = Path("page.php");
  Fails({}, 2, "no page given");
  Fails({"--frobnicate", page}, 2, "unknown option --frobnicate");
  Fails({"--server", "cat", "--server-output", page, page}, 2, "not both");
  Fails({"--profile", "jsp", page}, 2, "unknown profile jsp");
  Fails({Path("page.txt")}, 2, "cannot tell the profile");
  Fails({page, page}, 2, "only one page");
  Fails({page, "--labelled"}, 2, "--labelled needs a value");
  Fails({"--profile", "asp", page}, 2, "asp profile has no server of its own");
  ServerRun help = Command({"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_TRUE(Has(help.output, "usage: qztranslate"));
}

TEST_F(QzTranslateTest, FailuresSayWhy) {
  // Pages that cannot be read or decoded.
  Fails({Path("missing.php")}, 1, Path("missing.php") + ": No such file or directory");
  Fails({"--profile", "php", folder}, 1, "Is a directory");
  Write("bad.php", "<p>ok</p>\n<p>\xC3\x28</p>");
  Fails({Path("bad.php")}, 1, "not valid UTF-8: bad byte sequence at byte offset 13 (line 2)");
  Write("nul.php", std::string("<p>\0</p>", 8));
  Fails({Path("nul.php")}, 1, "NUL character at byte offset 3");

  // Servers that fail, with their status and the tail of their standard
  // error, or whose output cannot be read or decoded.
  Write("page.php", "<p><?= 1 ?></p>");
  Fails({"--server-output", Path("gone.html"), Path("page.php")}, 1, "cannot read server output");
  Fails({"--server", "cat >/dev/null; echo 'PHP Fatal error: boom' >&2; exit 4", Path("page.php")}, 1,
        "failed with exit status 4; its standard error ends with:\nPHP Fatal error: boom");
  Fails({"--server", "no-such-server-qz", Path("page.php")}, 1, "could not be run (exit status 127");
  Fails({"--server", "kill -9 $$", Path("page.php")}, 1, "killed by signal 9");
  Fails({"--server", "printf 'ok\\n\\377'", Path("page.php")}, 1,
        "server's output is not valid UTF-8: bad byte sequence at byte offset 3 (line 2)");

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

  Fails({"--server", "cat", "-o", Path("no/such/dir/out.html"), Path("page.php")}, 1, "cannot write");
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

  // The demo page, as the README translates it.
  ServerRun demo = Command({std::string(QZ_EXAMPLES_DIR) + "/hello.php"});
  ASSERT_EQ(demo.exitStatus, 0) << demo.errors;
  EXPECT_EQ(demo.errors, "");
  EXPECT_TRUE(Has(demo.output, "<qz:lock code=\"%3C?php%20include%20%22inc/footer.php%22;%20?%3E\">") &&
              Has(demo.output, "qzTranslatedValue=\"class=visitor  hilitecolor=") &&
              Has(demo.output, "<font hilitecolor=\"Dyn Up-to-Date Color\">Ada</font>")) << demo.output;
  EXPECT_FALSE(Has(demo.output, "QZVX") || Has(demo.output, "qzvx")) << "no label left behind";
}
