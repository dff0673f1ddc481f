// Regression guard: every pass of a translation stays linear in the page,
// also on hostile pages. Each shape is translated at two sizes, eight times
// apart, by qzprobe in a child process under a time limit, so that a pass
// gone quadratic fails this test instead of hanging the suite. A quadratic
// pass makes the larger page cost eight times as much per unit; the bound
// of four leaves room for a noisy machine (times are the probe's processor
// time, the fastest of a few runs). The peak memory of the larger page is
// held to a bound per unit as well, so that a pass that starts to hold
// copies of the page fails here.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

#if defined(__SANITIZE_ADDRESS__) || !defined(NDEBUG)
// Sanitized and debug builds run many times slower; smaller pages keep the
// test short. Their memory is the sanitizer's business and is not checked.
constexpr size_t kSmall = size_t{1} << 16;
constexpr bool kCheckMemory = false;
#else
constexpr size_t kSmall = size_t{1} << 18;
constexpr bool kCheckMemory = true;
#endif
constexpr size_t kLarge = 8 * kSmall;
constexpr int kLimitSeconds = 30;

struct Probe {
  bool ok = false;
  double seconds = 0;        // fastest translation
  double peakPerByte = 0;    // peak over the page's UTF-16 bytes
  std::string failure;
};

// Runs qzprobe SHAPE UNITS REPEATS; a child still running after the limit
// is killed and the probe fails.
Probe RunProbe(const char* shape, size_t units, int repeats) {
  Probe probe;
  int fds[2];
  if (pipe(fds) != 0) {
    probe.failure = "no pipe";
    return probe;
  }
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    std::string n = std::to_string(units), r = std::to_string(repeats);
    execl(QZ_PROBE_PATH, "qzprobe", shape, n.c_str(), r.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  std::string text;
  struct pollfd pfd = {fds[0], POLLIN, 0};
  bool timedOut = false;
  for (;;) {
    int ready = poll(&pfd, 1, kLimitSeconds * 1000);
    if (ready == 0) {
      timedOut = true;
      kill(pid, SIGKILL);
      break;
    }
    char chunk[256];
    ssize_t got = read(fds[0], chunk, sizeof chunk);
    if (got <= 0) break;
    text.append(chunk, static_cast<size_t>(got));
  }
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  unsigned long long pageUnits = 0, peak = 0;
  if (timedOut) {
    probe.failure = std::string("over ") + std::to_string(kLimitSeconds) + " s: quadratic?";
  } else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 ||
             std::sscanf(text.c_str(), "%llu %lf %llu", &pageUnits, &probe.seconds, &peak) != 3 || pageUnits == 0) {
    probe.failure = "qzprobe failed: " + text;
  } else {
    probe.ok = true;
    probe.peakPerByte = static_cast<double>(peak) / (2.0 * static_cast<double>(pageUnits));
  }
  return probe;
}

struct ShapeBound {
  const char* shape;
  double peakPerByte;  // bound on the larger page's peak, per UTF-16 byte of the page
};

// Bounds on the larger page's peak, per UTF-16 byte of the page: what the
// translation holds now (page, labelled page, output, merged page and the
// library's stages; bench/README.md has the figures) with room to spare.
// Many small pieces of server code make a merged page some twenty times the
// page itself (each piece gets two labels and then its lock markup), and
// their bound follows.
constexpr ShapeBound kShapes[] = {
    {"realistic", 16}, {"unclosed", 16}, {"nested", 16}, {"stray", 16},
    {"pieces", 96},    {"attrcode", 16}, {"hashruns", 16},
};

TEST(Linearity, EveryShapeCostsTheSamePerUnitAtEightTimesTheSize) {
  for (const ShapeBound& s : kShapes) {
    SCOPED_TRACE(s.shape);
    Probe small = RunProbe(s.shape, kSmall, 5);
    Probe large = RunProbe(s.shape, kLarge, 3);
    ASSERT_TRUE(small.ok) << small.failure;
    ASSERT_TRUE(large.ok) << large.failure;
    double ratio = (large.seconds / kLarge) / (small.seconds / kSmall);
    EXPECT_LT(ratio, 4.0) << "time per unit at " << kLarge << " units over that at " << kSmall;
    if (kCheckMemory) {
      EXPECT_LT(large.peakPerByte, s.peakPerByte) << "peak memory per UTF-16 byte of the page";
    }
  }
}

}  // namespace
