// Running server commands: the exchange over pipes, statuses and messages,
// and servers that would never end.
#include "Server.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <fcntl.h>
#include <unistd.h>
#include <stdlib.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <chrono>
#include <cstdio>
#include <iterator>
#include <filesystem>
#include <fstream>

using namespace qzhost;

static ServerRun RunCommand(const std::string& command, std::string_view input, const std::string& folder = ".",
                            const ServerLimits& limits = {}) {
  ServerRun run;
  std::string error;
  EXPECT_TRUE(RunServer(command, folder, input, &run, &error, limits)) << error;
  return run;
}

static double SecondsSince(std::chrono::steady_clock::time_point begin) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

TEST(ServerTest, BigPagesPassBothWaysWithoutStalling) {
  // Far more than a pipe holds, in both directions at once: a host that
  // wrote everything before reading would wait forever.
  std::string page(8 << 20, 'x');
  for (size_t i = 0; i < page.size(); i += 997) page[i] = '\n';
  ServerRun big = RunCommand("cat", page);
  EXPECT_EQ(big.exitStatus, 0);
  EXPECT_EQ(big.output, page);

  // A server that answers without reading and exits: the unread input is no
  // failure.
  page.resize(1 << 20);
  ServerRun quick = RunCommand("echo done", page);
  EXPECT_EQ(quick.exitStatus, 0);
  EXPECT_EQ(quick.output, "done\n");
  // Nor is input the server closed while it goes on.
  ServerRun closed = RunCommand("exec 0<&-; sleep 0.1; echo done", page);
  EXPECT_TRUE(closed.Succeeded() && closed.output == "done\n");
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
  EXPECT_EQ(ErrorTail("one\r\n\r\n") + "|" + ErrorTail("abcdef", 3) + "|" + ErrorTail("ab\ncd\nef", 4), "one|def|ef");
}

TEST(ServerTest, NoServerOutlivesItsTimeLimitOrLeavesAProcessBehind) {
  char folder[] = "/tmp/qzserverXXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  // Each server writes the process ids it makes into pids, one a line; all
  // must be gone once the run has returned.
  auto allGone = [&] {
    std::ifstream pids(folder + std::string("/pids"));
    int n = 0;
    for (long pid; pids >> pid; ++n)
      if (kill(static_cast<pid_t>(pid), 0) == 0) return false;
    return n > 0;
  };
  ServerLimits limits;
  limits.timeoutSeconds = 0.3;
  limits.graceSeconds = 0.3;
  struct Case {
    const char* what;
    const char* command;
    bool timedOut;
    double within;  // seconds
  } cases[] = {
      {"a server asleep past the limit", "echo $$ >pids; exec sleep 30", true, 0.3 + 0.2},
      {"one that ignores SIGTERM gets SIGKILL after the grace", "echo $$ >pids; trap '' TERM; sleep 30; sleep 30",
       true, 0.3 + 0.3 + 0.2},
      {"a background child holding the output open is not waited for",
       "echo $$ >pids; sleep 30 & echo $! >>pids; echo done", false, 0.2},
      {"nor one that ignores SIGTERM", "echo $$ >pids; (trap '' TERM; sleep 30) & echo $! >>pids; echo done",
       false, 0.3 + 0.2},
      {"nor a daemon that left the group (it outlived the command before)",
       "echo $$ >pids; setsid -f sh -c 'echo $$ >>pids; exec sleep 30'; sleep 0.1; echo done", false, 0.1 + 0.3},
      {"nor the children of one that ignores SIGTERM",
       "echo $$ >pids; setsid -f sh -c 'trap \"\" TERM; sleep 30 & echo $! >>pids; echo $$ >>pids; wait'; "
       "sleep 0.1; echo done",
       false, 0.1 + 0.3 + 0.3},
  };
  for (const Case& c : cases) {
    auto begin = std::chrono::steady_clock::now();
    ServerRun run = RunCommand(c.command, "", folder, limits);
    EXPECT_LT(SecondsSince(begin), c.within) << c.what;
    EXPECT_EQ(run.timedOut, c.timedOut) << c.what;
    EXPECT_TRUE(allGone()) << c.what;
    EXPECT_TRUE(c.timedOut || (run.Succeeded() && run.output == "done\n" && run.stoppedLeftovers)) << c.what;
  }
  // A server that never stops printing is ended once its output passes the
  // limit, long before the time limit: held in memory, `yes` took 4 GB in
  // six seconds. One that prints exactly the limit and exits is fine, one
  // that leaves a byte more in the pipe as it exits is not.
  ServerLimits small;
  small.timeoutSeconds = 20;
  small.graceSeconds = 0.3;
  small.maxOutputBytes = 1 << 20;
  auto begin = std::chrono::steady_clock::now();
  ServerRun flood = RunCommand("echo $$ >pids; yes", "", folder, small);
  EXPECT_LT(SecondsSince(begin), 2.0);
  EXPECT_TRUE(flood.tooMuchOutput && !flood.timedOut && !flood.Succeeded());
  EXPECT_EQ(flood.output.size(), small.maxOutputBytes);
  EXPECT_TRUE(allGone());
  ServerRun exact = RunCommand("head -c 1048576 /dev/zero", "", folder, small);
  EXPECT_TRUE(exact.Succeeded() && exact.output.size() == small.maxOutputBytes);
  ServerRun over = RunCommand("head -c 1048577 /dev/zero", "", folder, small);
  EXPECT_TRUE(over.tooMuchOutput && !over.Succeeded());

  // Without a limit a quick server just ends, and nothing is stopped.
  ServerRun quick = RunCommand("echo $$ >pids; cat", "page", folder);
  EXPECT_TRUE(quick.Succeeded() && quick.output == "page" && !quick.stoppedLeftovers && allGone());
  std::filesystem::remove_all(folder);
}

TEST(ServerTest, NoDescriptorsLeftForThePipes) {
  // Room for one pipe at most: the run fails, and leaves no descriptor open.
  int lowest = open("/dev/null", O_RDONLY);
  close(lowest);
  rlimit saved;
  getrlimit(RLIMIT_NOFILE, &saved);
  rlimit tight = saved;
  tight.rlim_cur = static_cast<rlim_t>(lowest + 2);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  ServerRun run;
  std::string error;
  bool ran = RunServer("cat", ".", "x", &run, &error);
  setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_FALSE(ran);
  EXPECT_EQ(error, "cannot make a pipe: Too many open files");
  int next = open("/dev/null", O_RDONLY);
  EXPECT_EQ(next, lowest);
  close(next);
}

// Makes pidfd_open fail in this process and its children, as on a kernel
// older than 5.3.
static bool WithoutProcessDescriptors() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pidfd_open, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program = {static_cast<unsigned short>(std::size(filter)), filter};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST(ServerDeathTest, WithoutProcessDescriptorsTheExitIsSeenAllTheSame) {
  // In a child of the test, which loses pidfd_open for good: the server's
  // exit is then looked for every 20 ms, with a time limit or without one.
  // This server closes its outputs before it exits, so that nothing else
  // is left to wake the host.
  auto run = [] {
    if (!WithoutProcessDescriptors()) {
      std::fprintf(stderr, "cannot filter pidfd_open\n");
      std::exit(2);
    }
    ServerLimits limited;
    limited.timeoutSeconds = 30;
    bool bOk = true;
    for (const ServerLimits& limits : {limited, ServerLimits()}) {
      ServerRun run;
      std::string error;
      const bool ran = RunServer("read line; echo \"got $line\"; exec >&- 2>&-; sleep 0.05", ".", "page\n", &run, &error,
                                 limits);
      if (!ran || !run.Succeeded() || run.output != "got page\n") {
        std::fprintf(stderr, "run: %s, status %d, output %s\n", error.c_str(), run.exitStatus, run.output.c_str());
        bOk = false;
      }
    }
    std::exit(bOk ? 0 : 1);
  };
  EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "");
}
