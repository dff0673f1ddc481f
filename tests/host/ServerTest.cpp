// Running server commands: the exchange over pipes, statuses and messages.
#include "Server.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>

using namespace qzhost;

namespace {

ServerRun RunCommand(const std::string& command, std::string_view input, const std::string& folder = ".") {
  ServerRun run;
  std::string error;
  EXPECT_TRUE(RunServer(command, folder, input, &run, &error)) << error;
  return run;
}

}  // namespace

TEST(ServerTest, BigPagesPassBothWaysWithoutStalling) {
  // Far more than a pipe holds, in both directions at once: a host that
  // wrote everything before reading would wait forever.
  std::string page(8 << 20, 'x');
  for (size_t i = 0; i < page.size(); i += 997) page[i] = '\n';
  auto begin = std::chrono::steady_clock::now();
  ServerRun run = RunCommand("cat", page);
  EXPECT_TRUE(run.Succeeded());
  EXPECT_EQ(run.output, page);
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(), 20.0);
}

TEST(ServerTest, ServersThatIgnoreTheirInput) {
  std::string page(1 << 20, 'y');
  // Answers without reading and exits: the unread input is no failure.
  ServerRun quick = RunCommand("echo done", page);
  EXPECT_TRUE(quick.Succeeded());
  EXPECT_EQ(quick.output, "done\n");
  // Writes a lot to both outputs before it reads anything.
  ServerRun chatty = RunCommand("head -c 300000 /dev/zero | tr '\\0' e >&2; head -c 300000 /dev/zero; cat >/dev/null", page);
  EXPECT_TRUE(chatty.Succeeded());
  EXPECT_EQ(chatty.output.size(), 300000u);
  EXPECT_EQ(chatty.errors.size(), kErrorTail) << "the tail of it";
}

TEST(ServerTest, ReportsHowAServerEnded) {
  ServerRun failed = RunCommand("echo partial; echo 'line one' >&2; echo 'fatal: boom' >&2; exit 3", "");
  EXPECT_EQ(failed.exitStatus, 3);
  EXPECT_FALSE(failed.Succeeded());
  EXPECT_EQ(failed.output, "partial\n");
  EXPECT_EQ(ErrorTail(failed.errors), "line one\nfatal: boom");

  ServerRun killed = RunCommand("kill -9 $$", "");
  EXPECT_EQ(killed.signal, 9);
  EXPECT_FALSE(killed.Succeeded());

  ServerRun missing = RunCommand("no-such-server-qz", "page");
  EXPECT_EQ(missing.exitStatus, 127);
  EXPECT_NE(missing.errors.find("no-such-server-qz"), std::string::npos);
}

TEST(ServerTest, RunsInTheGivenFolder) {
  char temp[] = "/tmp/qzserverXXXXXX";
  ASSERT_NE(mkdtemp(temp), nullptr);
  ServerRun run = RunCommand("pwd", "", temp);
  EXPECT_EQ(run.output, std::string(temp) + "\n");
  rmdir(temp);

  ServerRun nowhere = RunCommand("pwd", "", "/no/such/folder/qz");
  EXPECT_NE(nowhere.exitStatus, 0);
  EXPECT_NE(nowhere.errors.find("folder"), std::string::npos);
}

TEST(ServerTest, ErrorTailKeepsTheLastWholeLines) {
  EXPECT_EQ(ErrorTail(""), "");
  EXPECT_EQ(ErrorTail("one\ntwo\n\n"), "one\ntwo");
  std::string many;
  for (int i = 0; i < 1000; ++i) many += "warning " + std::to_string(i) + "\n";
  std::string tail = ErrorTail(many, 100);
  EXPECT_LE(tail.size(), 100u);
  EXPECT_EQ(tail.substr(0, 8), "warning ");
  EXPECT_EQ(tail.substr(tail.size() - 11), "warning 999");
  // A huge standard error is kept as its tail only.
  ServerRun run = RunCommand("head -c 1000000 /dev/zero | tr '\\0' z >&2; echo END >&2", "");
  EXPECT_LE(run.errors.size(), kErrorTail);
  EXPECT_EQ(run.errorBytes, 1000004u);
  EXPECT_EQ(run.errors.substr(run.errors.size() - 4), "END\n");
}
