// The qztranslate command as a user runs it: exit statuses, messages, files
// left behind, and the one-step and two-step ways of translating.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Files.h"
#include "Server.h"

using namespace qzhost;

namespace {

std::string Quote(const std::string& arg) {
  std::string quoted = "'";
  for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

bool HavePhp() {
  ServerRun run;
  std::string error;
  return RunServer("command -v php", ".", "", &run, &error) && run.Succeeded();
}

class QzTranslateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char temp[] = "/tmp/qzcommandXXXXXX";
    ASSERT_NE(mkdtemp(temp), nullptr);
    folder = temp;
  }
  void TearDown() override {
    ServerRun run;
    std::string error;
    RunServer("rm -rf " + Quote(folder), "/", "", &run, &error);
  }

  std::string Path(const std::string& name) { return folder + "/" + name; }

  void Write(const std::string& name, const std::string& bytes) {
    mkdir(FolderOf(Path(name)).c_str(), 0777);
    std::string error;
    ASSERT_TRUE(WriteWholeFile(Path(name), bytes, &error)) << error;
  }

  std::string Read(const std::string& name) {
    std::string bytes, error;
    EXPECT_TRUE(ReadWholeFile(Path(name), &bytes, &error)) << error;
    return bytes;
  }

  // Runs qztranslate with the arguments (each quoted) from the root folder,
  // so that only the page's own folder can make relative paths work.
  ServerRun Command(std::initializer_list<std::string> args) {
    std::string line = QZ_TRANSLATE_PATH;
    for (const std::string& a : args) line += " " + Quote(a);
    ServerRun run;
    std::string error;
    EXPECT_TRUE(RunServer(line, "/", "", &run, &error)) << error;
    return run;
  }

  std::vector<std::string> Files() {
    std::vector<std::string> names;
    DIR* dir = opendir(folder.c_str());
    while (dirent* e = readdir(dir))
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
  }

  std::string folder;
};

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST_F(QzTranslateTest, WrongCommandLinesGetUsageAndStatusTwo) {
  Write("page.php", "<p>x</p>");
  Write("page.txt", "<p>x</p>");
  struct Case {
    std::initializer_list<std::string> args;
    const char* says;
  } cases[] = {
      {{}, "no page given"},
      {{"--frobnicate", Path("page.php")}, "unknown option --frobnicate"},
      {{"--server", "cat", "--server-output", Path("page.php"), Path("page.php")}, "not both"},
      {{"--profile", "jsp", Path("page.php")}, "unknown profile jsp"},
      {{Path("page.txt")}, "cannot tell the profile"},
      {{Path("page.php"), Path("page.php")}, "only one page"},
      {{Path("page.php"), "--labelled"}, "--labelled needs a value"},
      {{"--profile", "asp", Path("page.php")}, "asp profile has no server of its own"},
  };
  for (const Case& c : cases) {
    ServerRun run = Command(c.args);
    EXPECT_EQ(run.exitStatus, 2) << c.says;
    EXPECT_TRUE(Has(run.errors, c.says)) << run.errors;
    EXPECT_TRUE(Has(run.errors, "usage: qztranslate")) << c.says;
    EXPECT_EQ(run.output, "") << c.says;
  }
  ServerRun help = Command({"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_TRUE(Has(help.output, "usage: qztranslate"));
}

TEST_F(QzTranslateTest, UnreadablePagesFailWithTheReason) {
  ServerRun missing = Command({Path("missing.php")});
  EXPECT_EQ(missing.exitStatus, 1);
  EXPECT_TRUE(Has(missing.errors, Path("missing.php") + ": No such file or directory")) << missing.errors;

  ServerRun folderPage = Command({"--profile", "php", folder});
  EXPECT_EQ(folderPage.exitStatus, 1);
  EXPECT_TRUE(Has(folderPage.errors, "Is a directory")) << folderPage.errors;

  Write("bad.php", "<p>ok</p>\n<p>\xC3\x28</p>");
  ServerRun invalid = Command({Path("bad.php")});
  EXPECT_EQ(invalid.exitStatus, 1);
  EXPECT_TRUE(Has(invalid.errors, "not valid UTF-8: bad byte sequence at byte offset 13 (line 2)")) << invalid.errors;

  Write("nul.php", std::string("<p>\0</p>", 8));
  ServerRun nul = Command({Path("nul.php")});
  EXPECT_EQ(nul.exitStatus, 1);
  EXPECT_TRUE(Has(nul.errors, "NUL character at byte offset 3")) << nul.errors;

  Write("page.php", "<p>x</p>");
  ServerRun badOutput = Command({"--server-output", Path("gone.html"), Path("page.php")});
  EXPECT_EQ(badOutput.exitStatus, 1);
  EXPECT_TRUE(Has(badOutput.errors, "cannot read server output")) << badOutput.errors;
}

TEST_F(QzTranslateTest, ServerFailuresAreReportedWithStatusAndStandardError) {
  Write("page.php", "<p><?= 1 ?></p>");
  ServerRun failed = Command({"--server", "cat >/dev/null; echo 'PHP Fatal error: boom' >&2; exit 4", Path("page.php")});
  EXPECT_EQ(failed.exitStatus, 1);
  EXPECT_TRUE(Has(failed.errors, "failed with exit status 4")) << failed.errors;
  EXPECT_TRUE(Has(failed.errors, "PHP Fatal error: boom")) << failed.errors;
  EXPECT_EQ(failed.output, "");

  ServerRun missing = Command({"--server", "no-such-server-qz", Path("page.php")});
  EXPECT_EQ(missing.exitStatus, 1);
  EXPECT_TRUE(Has(missing.errors, "exit status 127")) << missing.errors;

  ServerRun killed = Command({"--server", "kill -9 $$", Path("page.php")});
  EXPECT_EQ(killed.exitStatus, 1);
  EXPECT_TRUE(Has(killed.errors, "killed by signal 9")) << killed.errors;

  ServerRun binary = Command({"--server", "printf 'ok\\n\\377'", Path("page.php")});
  EXPECT_EQ(binary.exitStatus, 1);
  EXPECT_TRUE(Has(binary.errors, "server's output is not valid UTF-8: bad byte sequence at byte offset 3 (line 2)"))
      << binary.errors;
}

TEST_F(QzTranslateTest, RejectedMergesSayWhy) {
  Write("page.php", "<p>\n<?= 1 ?></p>");
  // The server stopped in the middle of the directive's output.
  Write("out.html", "<p>\n<!--QZVX 0 -->1");
  ServerRun run = Command({"--server-output", Path("out.html"), Path("page.php")});
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_TRUE(Has(run.errors, "rejected the merge")) << run.errors;
  EXPECT_TRUE(Has(run.errors, "label 0 (line 2 of the page) produced output whose closing label never came back"))
      << run.errors;

  // The page itself leaves an element whose content is not HTML open.
  Write("open.aspx", "<p>a</p>\n<div runat=\"server\"><p>x</p>");
  ServerRun open = Command({"--server", "cat", Path("open.aspx")});
  EXPECT_EQ(open.exitStatus, 1);
  EXPECT_TRUE(Has(open.errors, "label 0 (line 2 of the page) has no end in the page itself")) << open.errors;
}

TEST_F(QzTranslateTest, ConstructsCutOffByTheEndAreWarnedAbout) {
  Write("cut.php", "<p>ok</p>\n<p class=\"x>rest");
  ServerRun run = Command({"--server", "cat", Path("cut.php")});
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  EXPECT_EQ(run.output, "<p>ok</p>\n<p class=\"x>rest") << "translated all the same";
  EXPECT_TRUE(Has(run.errors, "warning: " + Path("cut.php") + ": line 2: the tag `<p class=\"x>rest` has no \">\""))
      << run.errors;
}

TEST_F(QzTranslateTest, OutputFilesAreWrittenWholeOrNotAtAll) {
  Write("page.php", "<p><?= 1 ?></p>");
  Write("out.html", "previous");
  ServerRun failed = Command({"--server", "exit 1", "-o", Path("out.html"), Path("page.php")});
  EXPECT_EQ(failed.exitStatus, 1);
  EXPECT_EQ(Read("out.html"), "previous");
  EXPECT_EQ(Files(), (std::vector<std::string>{"out.html", "page.php"})) << "no temporary file left";

  ServerRun ok = Command({"--server", "cat", "-o", Path("out.html"), Path("page.php")});
  EXPECT_EQ(ok.exitStatus, 0) << ok.errors;
  EXPECT_EQ(ok.output, "");
  EXPECT_EQ(Read("out.html"), "<p><?= 1 ?></p>");
  EXPECT_EQ(Files(), (std::vector<std::string>{"out.html", "page.php"}));

  ServerRun nowhere = Command({"--server", "cat", "-o", Path("no/such/dir/out.html"), Path("page.php")});
  EXPECT_EQ(nowhere.exitStatus, 1);
  EXPECT_TRUE(Has(nowhere.errors, "cannot write")) << nowhere.errors;
}

TEST_F(QzTranslateTest, TwoStepsGiveWhatOneStepGives) {
  if (!HavePhp()) GTEST_SKIP() << "php is not installed";
  // A byte order mark is accepted and the include is found from the page's
  // own folder, though the command runs elsewhere.
  Write("site/page.php", "\xEF\xBB\xBF<b class=\"<?= 'x' ?>\"><?php include 'inc/name.php'; ?></b>");
  Write("site/inc/name.php", "<i>Ada</i>");

  ServerRun oneStep = Command({Path("site/page.php")});
  ASSERT_EQ(oneStep.exitStatus, 0) << oneStep.errors;
  EXPECT_TRUE(Has(oneStep.output, "<qz:lock code=\"%3C?php%20include%20'inc/name.php';%20?%3E\">")) << oneStep.output;
  EXPECT_TRUE(Has(oneStep.output, ">Ada</i></qz:lock></b>")) << oneStep.output;

  ServerRun label = Command({"--labelled", Path("labelled.php"), Path("site/page.php")});
  ASSERT_EQ(label.exitStatus, 0) << label.errors;
  EXPECT_EQ(label.output, "") << "labelling alone merges nothing";
  std::string labelled = Read("labelled.php");
  EXPECT_TRUE(Has(labelled, "<!--QZVX 0 --><?php include")) << labelled;

  ServerRun remote;
  std::string error;
  ASSERT_TRUE(RunServer("php -d display_errors=stderr -d log_errors=0 > ../out.html", Path("site"), labelled, &remote, &error));
  ASSERT_TRUE(remote.Succeeded()) << remote.errors;
  ServerRun merge = Command({"--server-output", Path("out.html"), "-o", Path("merged.html"), Path("site/page.php")});
  ASSERT_EQ(merge.exitStatus, 0) << merge.errors;
  EXPECT_EQ(Read("merged.html"), oneStep.output);
}

TEST_F(QzTranslateTest, TheDemoPageTranslatesThroughPhp) {
  if (!HavePhp()) GTEST_SKIP() << "php is not installed";
  ServerRun run = Command({std::string(QZ_EXAMPLES_DIR) + "/hello.php"});
  ASSERT_EQ(run.exitStatus, 0) << run.errors;
  EXPECT_EQ(run.errors, "");
  EXPECT_TRUE(Has(run.output, "<qz:lock code=\"%3C?php%20include%20%22inc/footer.php%22;%20?%3E\">")) << run.output;
  EXPECT_TRUE(Has(run.output, "qzTranslatedValue=\"class=visitor  hilitecolor=")) << run.output;
  EXPECT_TRUE(Has(run.output, "<font hilitecolor=\"Dyn Up-to-Date Color\">Ada</font>")) << run.output;
  EXPECT_FALSE(Has(run.output, "QZVX")) << "no label left behind";
  EXPECT_FALSE(Has(run.output, "qzvx")) << "no label left behind";
}
