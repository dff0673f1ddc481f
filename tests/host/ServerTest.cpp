// Running server commands: the exchange over pipes, statuses and messages.
#include "Server.h"

#include <gtest/gtest.h>

#include <chrono>

using namespace qzhost;

static ServerRun RunCommand(const std::string& command, std::string_view input, const std::string& folder = ".") {
  ServerRun run;
  std::string error;
  EXPECT_TRUE(RunServer(command, folder, input, &run, &error)) << error;
  return run;
}

TEST(ServerTest, BigPagesPassBothWaysWithoutStalling) {
  // Far more than a pipe holds, in both directions at once: a host that
  // wrote everything before reading would wait forever.
  std::string page(8 << 20, 'x');
  for (size_t i = 0; i < page.size(); i += 997) page[i] = '\n';
  auto begin = std::chrono::steady_clock::now();
  ServerRun big = RunCommand("cat", page);
  EXPECT_EQ(big.exitStatus, 0);
  EXPECT_EQ(big.output, page);
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(), 20.0);

  // A server that answers without reading and exits: the unread input is no
  // failure.
  page.resize(1 << 20);
  ServerRun quick = RunCommand("echo done", page);
  EXPECT_EQ(quick.exitStatus, 0);
  EXPECT_EQ(quick.output, "done\n");
  // One that writes a lot to both outputs before it reads anything: only the
  // tail of its standard error is kept.
  ServerRun chatty = RunCommand(
      "head -c 300000 /dev/zero | tr '\\0' e >&2; echo END >&2; head -c 300000 /dev/zero; cat >/dev/null", page);
  EXPECT_EQ(chatty.exitStatus, 0);
  EXPECT_EQ(chatty.output.size(), 300000u);
  EXPECT_EQ(chatty.errors, std::string(kErrorTail - 4, 'e') + "END\n");
  EXPECT_EQ(chatty.errorBytes, 300004u);
}

TEST(ServerTest, RunsInTheGivenFolderAndReportsHowItEnded) {
  EXPECT_EQ(RunCommand("pwd", "", "/").output, "/\n");
  ServerRun nowhere = RunCommand("pwd", "", "/no/such/folder/qz");
  EXPECT_NE(nowhere.exitStatus, 0);
  EXPECT_NE(nowhere.errors.find("folder"), std::string::npos);

  ServerRun failed = RunCommand("echo partial; echo 'line one' >&2; echo 'fatal: boom' >&2; echo >&2; exit 3", "");
  EXPECT_EQ(failed.exitStatus, 3);
  EXPECT_EQ(failed.output, "partial\n");
  // For messages: the last whole lines that fit, without empty lines at the end.
  EXPECT_EQ(ErrorTail(failed.errors), "line one\nfatal: boom");
  EXPECT_EQ(ErrorTail(failed.errors, 15), "fatal: boom");
  EXPECT_EQ(ErrorTail(""), "");
}
