// Writing output without harming a file: each kind of target gets the bytes,
// and nothing but the target is created, changed or replaced.
#include "Files.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

using namespace qzhost;

namespace {

class FilesTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(mkdtemp(folder), nullptr); }
  void TearDown() override { std::filesystem::remove_all(folder); }

  std::string Path(const std::string& name) { return folder + ("/" + name); }
  std::string Read(const std::string& name) {
    std::string bytes, error;
    return ReadWholeFile(Path(name), &bytes, &error) ? bytes : "(unreadable)";
  }
  // Names in the folder, sorted, hidden ones too.
  std::string Names() {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.insert(entry.path().filename());
    std::string all;
    for (const std::string& n : names) all += n + " ";
    return all;
  }
  // Resolves and writes; the message on failure.
  std::string Write(const std::string& given, const std::string& bytes) {
    OutputTarget target;
    std::string error;
    if (!ResolveOutput(given, &target, &error) || !WriteOutput(target, bytes, &error)) return error;
    return "";
  }

  char folder[20] = "/tmp/qzfilesXXXXXX";
};

}  // namespace

TEST_F(FilesTest, RegularFilesAreReplacedWholeKeepingTheirPermissions) {
  std::ofstream(Path("out.html")) << "old";
  ASSERT_EQ(chmod(Path("out.html").c_str(), 0640), 0);
  EXPECT_EQ(Write(Path("out.html"), "new"), "");
  EXPECT_EQ(Read("out.html"), "new");
  struct stat st;
  ASSERT_EQ(stat(Path("out.html").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  // A new file gets 0666 less the umask; any legal name works, the longest
  // too, since the temporary name is short.
  mode_t mask = umask(022);
  std::string longest(255, 'n');
  EXPECT_EQ(Write(Path(longest), "long"), "");
  umask(mask);
  ASSERT_EQ(stat(Path(longest).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
  EXPECT_EQ(Names(), longest + " out.html ");
  // Refused before anything is written: a folder, a folder that is not there.
  EXPECT_NE(Write(folder, "x").find("Is a directory"), std::string::npos);
  EXPECT_NE(Write(Path("none/out.html"), "x").find("No such file or directory"), std::string::npos);
  // A file for a folder is refused when the output is resolved, before a
  // server runs.
  OutputTarget target;
  std::string error;
  EXPECT_FALSE(ResolveOutput(Path("out.html/out.html"), &target, &error));
  EXPECT_NE(error.find("Not a directory"), std::string::npos) << error;
  EXPECT_EQ(Names(), longest + " out.html ");
}

// Outputs asked for together are replaced together: one that cannot be
// written leaves those added before it as they were, and none is replaced
// before Commit.
TEST_F(FilesTest, OutputsOfOneBatchAreReplacedTogetherOrNotAtAll) {
  std::ofstream(Path("preview.html")) << "old preview";
  std::ofstream(Path("out.html")) << "old page";
  OutputTarget preview, page, lost;
  std::string error;
  ASSERT_TRUE(ResolveOutput(Path("preview.html"), &preview, &error)) << error;
  ASSERT_TRUE(ResolveOutput(Path("out.html"), &page, &error)) << error;
  // A folder gone since the target was resolved.
  ASSERT_TRUE(std::filesystem::create_directory(Path("gone")));
  ASSERT_TRUE(ResolveOutput(Path("gone/out.html"), &lost, &error)) << error;
  std::filesystem::remove(Path("gone"));
  {
    OutputBatch batch;
    EXPECT_TRUE(batch.Add(preview, "new preview", &error)) << error;
    EXPECT_FALSE(batch.Add(lost, "new page", &error));
    EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;
  }
  EXPECT_EQ(Read("preview.html"), "old preview");
  EXPECT_EQ(Names(), "out.html preview.html ") << "no temporary file left";

  OutputBatch batch;
  EXPECT_TRUE(batch.Add(preview, "new preview", &error) && batch.Add(page, "new page", &error)) << error;
  EXPECT_EQ(Read("preview.html"), "old preview") << "nothing replaced before Commit";
  EXPECT_TRUE(batch.Commit(&error)) << error;
  EXPECT_EQ(Read("preview.html"), "new preview");
  EXPECT_EQ(Read("out.html"), "new page");
  EXPECT_EQ(Names(), "out.html preview.html ");
}

TEST_F(FilesTest, LinksAreFollowedToTheirTarget) {
  std::ofstream(Path("target.html")) << "old";
  std::filesystem::create_symlink("target.html", Path("link.html"));
  std::filesystem::create_directory(Path("sub"));
  std::filesystem::create_symlink("../link.html", Path("sub/chain.html"));
  EXPECT_EQ(Write(Path("sub/chain.html"), "new"), "");
  EXPECT_TRUE(std::filesystem::is_symlink(Path("link.html")) && std::filesystem::is_symlink(Path("sub/chain.html")));
  EXPECT_EQ(Read("target.html"), "new");
  // A dangling link gets its target made; a loop of links is refused.
  std::filesystem::create_symlink("made.html", Path("dangling.html"));
  EXPECT_EQ(Write(Path("dangling.html"), "made"), "");
  EXPECT_EQ(Read("made.html"), "made");
  std::filesystem::create_symlink("loop.html", Path("loop.html"));
  EXPECT_NE(Write(Path("loop.html"), "x").find("Too many levels of symbolic links"), std::string::npos);
  EXPECT_EQ(Names(), "dangling.html link.html loop.html made.html sub target.html ");
}

TEST_F(FilesTest, PipesDevicesAndDescriptorsAreWrittenInPlace) {
  // A named pipe read by a child stays a pipe; the child gets the bytes.
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
  pid_t reader = fork();
  if (reader == 0) {
    std::string bytes, error;
    _exit(ReadWholeFile(Path("fifo"), &bytes, &error) && bytes == "through the pipe" ? 0 : 1);
  }
  EXPECT_EQ(Write(Path("fifo"), "through the pipe"), "");
  int status = 0;
  ASSERT_EQ(waitpid(reader, &status, 0), reader);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_TRUE(std::filesystem::is_fifo(Path("fifo")));

  // One that no process opens for reading, or whose reader reads nothing,
  // fails after the wait instead of holding the command for ever.
  OutputTarget waiting;
  std::string error;
  ASSERT_TRUE(ResolveOutput(Path("fifo"), &waiting, &error)) << error;
  waiting.waitSeconds = 0.2;
  auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(WriteOutput(waiting, "nobody reads", &error));
  EXPECT_EQ(error, Path("fifo") + ": no process opened it for reading within 0.2 seconds (--timeout)");
  int idle = open(Path("fifo").c_str(), O_RDONLY | O_NONBLOCK);
  EXPECT_FALSE(WriteOutput(waiting, std::string(4 << 20, 'x'), &error));
  EXPECT_EQ(error, Path("fifo") + ": no process read what was written within 0.2 seconds (--timeout)");
  close(idle);
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(), 1.0);

  // An open descriptor, by /dev/fd/N and /proc/self/fd/N.
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  EXPECT_EQ(Write("/dev/fd/" + std::to_string(fds[1]), "fd "), "");
  EXPECT_EQ(Write("/proc/self/fd/" + std::to_string(fds[1]), "proc"), "");
  close(fds[1]);
  char got[16] = {};
  EXPECT_EQ(read(fds[0], got, sizeof got), 7);
  EXPECT_STREQ(got, "fd proc");
  close(fds[0]);
  EXPECT_NE(Write("/dev/fd/987", "x").find("Bad file descriptor"), std::string::npos);

  // A character device of our own (the null device's numbers).
  if (geteuid() != 0) GTEST_SKIP() << "making a character device needs root";
  if (mknod(Path("null").c_str(), S_IFCHR | 0666, makedev(1, 3)) != 0)
    GTEST_SKIP() << "this system lets no one make a character device: " << std::strerror(errno);
  EXPECT_EQ(Write(Path("null"), "gone"), "");
  EXPECT_TRUE(std::filesystem::is_character_file(Path("null")));
  EXPECT_EQ(Names(), "fifo null ");
}

TEST_F(FilesTest, WhatCannotBeWrittenSaysWhyAndLeavesNothingBehind) {
  // Names that stand for descriptors, and near misses that are paths.
  const std::pair<std::string, int> descriptors[] = {
      {"/dev/stdin", 0}, {"/dev/stderr", 2}, {"/proc/self/fd/1", 1}, {"/dev/fd/1x", -1}, {"/dev/fd/", -1},
      {"/dev/fd/12345678901", -1}};
  for (const auto& [given, fd] : descriptors) {
    OutputTarget target;
    std::string error;
    ResolveOutput(given, &target, &error);
    EXPECT_EQ(target.fd, fd) << given;
  }
  EXPECT_EQ(FolderOf("/x") + FolderOf("x"), "/.");
  int readOnly = open("/dev/null", O_RDONLY);
  EXPECT_NE(Write("/dev/fd/" + std::to_string(readOnly), "x").find("Bad file descriptor"), std::string::npos);
  close(readOnly);
  // A socket cannot be opened, a full device takes no bytes, /proc no new
  // file; a link with an absolute target leads there.
  int sock = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, Path("socket").c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  std::filesystem::create_symlink("/dev/full", Path("full"));
  EXPECT_NE(Write(Path("socket"), "x").find("No such device or address"), std::string::npos);
  OutputTarget socketTarget;
  std::string socketError;
  EXPECT_FALSE(ResolveOutput(Path("socket"), &socketTarget, &socketError)) << "found before anything runs";
  EXPECT_NE(Write(Path("full"), "x").find(Path("full") + ": No space left on device"), std::string::npos);
  EXPECT_NE(Write("/proc/qz-output", "x").find("/proc/qz-output: "), std::string::npos);
  close(sock);
  // A file that became a folder after it was found is not replaced.
  std::ofstream(Path("out.html")) << "old";
  OutputTarget target;
  std::string error;
  ASSERT_TRUE(ResolveOutput(Path("out.html"), &target, &error));
  std::filesystem::remove(Path("out.html"));
  std::filesystem::create_directories(Path("out.html/inside"));
  EXPECT_FALSE(WriteOutput(target, "new", &error));
  EXPECT_NE(error.find(Path("out.html") + ": "), std::string::npos) << error;
  EXPECT_EQ(Names(), "full out.html socket ");
  // What this process may not write is refused when the target is found,
  // before anything runs: a read-only file (kept as it is, as a shell's `>`
  // keeps it), a new file or a replacement in a read-only folder. Root may
  // write anything, so the cases run as nobody.
  std::filesystem::create_directory(Path("shut"));
  std::ofstream(Path("shut/inside.html")) << "kept";
  std::ofstream(Path("read-only.html")) << "kept";
  chmod(folder, 0777);
  chmod(Path("shut").c_str(), 0555);
  chmod(Path("read-only.html").c_str(), 0444);
  chmod(Path("shut/inside.html").c_str(), 0666);
  pid_t child = fork();
  if (child == 0) {
    if (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0) _exit(2);
    OutputTarget t;
    std::string why;
    bool refused = !ResolveOutput(Path("read-only.html"), &t, &why) && why == Path("read-only.html") + ": Permission denied" &&
                   !ResolveOutput(Path("shut/new.html"), &t, &why) && why == Path("shut/new.html") + ": Permission denied" &&
                   !ResolveOutput(Path("shut/inside.html"), &t, &why) && ResolveOutput(Path("new.html"), &t, &why);
    _exit(refused ? 0 : 1);
  }
  int childStatus = 0;
  ASSERT_EQ(waitpid(child, &childStatus, 0), child);
  EXPECT_TRUE(WIFEXITED(childStatus) && WEXITSTATUS(childStatus) == 0);
  EXPECT_EQ(Read("read-only.html") + Read("shut/inside.html"), "keptkept");
  chmod(Path("shut").c_str(), 0755);
  EXPECT_EQ(Names(), "full out.html read-only.html shut socket ");

  // A privileged command gives a replaced file back its owner.
  if (geteuid() != 0) return;
  std::ofstream(Path("owned")) << "old";
  ASSERT_EQ(chown(Path("owned").c_str(), 1, 1), 0);
  EXPECT_EQ(Write(Path("owned"), "new"), "");
  struct stat st;
  ASSERT_EQ(stat(Path("owned").c_str(), &st), 0);
  EXPECT_TRUE(st.st_uid == 1 && st.st_gid == 1);
}
