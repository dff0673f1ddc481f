// qzprobe SHAPE UNITS --page: writes that page to standard output (ASCII,
// so also UTF-8), for the benchmarks of the whole command.
//
// qzprobe SHAPE UNITS [REPEATS]: translates a page of one shape in this
// process, as the stand-in host does (scanning, engine, library), with the
// stand-in server, and prints
//   UNITS SECONDS PEAK_BYTES
// SECONDS is the fastest of REPEATS translations (label and merge, the
// stand-in server left out), in processor time of this process, which other
// work on a shared machine disturbs far less than the clock on the wall; PEAK_BYTES is how far the resident set rose
// above what it was before the page was made, at its highest. A fresh
// process for each measurement keeps earlier pages out of the peak. The
// process ends itself after 60 seconds, so a pass gone quadratic cannot
// hang whoever waits for it.
#include <unistd.h>

#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Engine.h"
#include "Main.h"
#include "Pages.h"
#include "TranslationSession.h"

namespace {

double CpuSeconds() {
  struct timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// A field of /proc/self/status in bytes (VmRSS, VmHWM), 0 when unreadable.
long long StatusBytes(const char* field) {
  FILE* f = std::fopen("/proc/self/status", "r");
  if (!f) return 0;
  char line[256];
  long long kb = 0;
  size_t n = std::strlen(field);
  while (std::fgets(line, sizeof line, f))
    if (std::strncmp(line, field, n) == 0 && line[n] == ':') kb = std::atoll(line + n + 1);
  std::fclose(f);
  return kb * 1024;
}

}  // namespace

int main(int argc, char** argv) {
  alarm(60);
  if (argc < 3) {
    std::fprintf(stderr, "usage: qzprobe SHAPE UNITS [REPEATS]\n");
    return 2;
  }
  const qzbench::ShapeInfo* shape = nullptr;
  for (const qzbench::ShapeInfo& s : qzbench::Shapes())
    if (std::strcmp(s.name, argv[1]) == 0) shape = &s;
  size_t units = std::strtoull(argv[2], nullptr, 10);
  if (argc > 3 && std::strcmp(argv[3], "--page") == 0 && shape) {
    std::string bytes = qzbench::AsciiBytes(qzbench::MakePage(shape->shape, units));
    return std::fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size() ? 0 : 1;
  }
  int repeats = argc > 3 ? std::atoi(argv[3]) : 1;
  if (!shape || units == 0 || repeats < 1) {
    std::fprintf(stderr, "qzprobe: unknown shape or bad size\n");
    return 2;
  }
  qzhost::Engine engine;
  auto table = engine.Table();
  QZ_InitWrapper(table.data(), static_cast<uint32_t>(table.size() * sizeof(void*)));
  const long long base = StatusBytes("VmRSS");
  size_t nPage = 0;
  double best = 1e30;
  for (int r = 0; r < repeats; ++r) {
    qzhost::TranslationSession session(engine, qzbench::BenchProfile());
    std::u16string labelled, merged;
    std::string error;
    // The session takes the page over, as the command gives it its only copy.
    std::u16string taken = qzbench::MakePage(shape->shape, units);
    nPage = taken.size();
    auto t0 = CpuSeconds();
    bool ok = session.Start(&error) && session.Label(std::move(taken), &labelled, &error);
    auto t1 = CpuSeconds();
    std::u16string output = ok ? qzbench::StandInServer(labelled) : u"";
    std::u16string().swap(labelled);
    auto t2 = CpuSeconds();
    ok = ok && session.Merge(std::move(output), &merged, &error);
    auto t3 = CpuSeconds();
    if (!ok) {
      std::fprintf(stderr, "qzprobe: %s\n", error.c_str());
      return 1;
    }
    double seconds = (t1 - t0) + (t3 - t2);
    if (seconds < best) best = seconds;
  }
  std::printf("%zu %.6f %lld\n", nPage, best, StatusBytes("VmHWM") - base);
  return 0;
}
