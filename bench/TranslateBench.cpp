// Throughput and memory of translations, each figure beside a yardstick
// measured in the same run, since this machine is shared and noisy:
//
// - Library/SHAPE: the library's own work. The scanner's events of both
//   passes are recorded once and replayed into the natives (Replay.h);
//   every iteration also copies the page's UTF-16 bytes with memcpy, and
//   the counter x_memcpy is the library's median time over memcpy's.
// - Translate/SHAPE/MB: a whole translation in this process (scanning,
//   engine, library; the stand-in server left out) of pages of 1, 4, 16 and
//   64 MB, time per page unit; a fresh process (qzprobe) translates the
//   same page for probe_ns_per_unit (processor time) and peak_per_byte (the
//   rise of its resident set over the page's UTF-16 bytes).
//
// After the run a table sums up, per shape, the time per unit at each size,
// the ratio of 64 MB to 1 MB, and the peaks.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "Engine.h"
#include "Main.h"
#include "Pages.h"
#include "Replay.h"
#include "TranslationSession.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMB = size_t{1} << 20;
const size_t kSizesMB[] = {1, 4, 16, 64};

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// Seconds that memcpy takes over n bytes, the destination faulted in first.
double MemcpySeconds(const void* from, size_t n) {
  static std::vector<char> to;
  if (to.size() < n) to.assign(n, 1);
  auto t0 = Clock::now();
  std::memcpy(to.data(), from, n);
  benchmark::ClobberMemory();
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

// Nanoseconds per byte of memcpy over a page's UTF-16 bytes at each size,
// into a destination of its own, faulted in, the fastest of five: the yardstick of the time per
// unit at that size (a page of 64 MB no longer fits the caches that hold one
// of 1 MB).
double gMemcpyNsPerByte[4];

struct Row {
  double nsPerUnit[4] = {};       // in process, wall clock, median
  double probeNsPerUnit[4] = {};  // fresh process, processor time, fastest
  double peakPerByte[4] = {};
  double libraryMemcpy = 0;
  double libraryUnitsPerSecond = 0;
};
std::map<std::string, Row> gRows;

void Library(benchmark::State& state, qzbench::ShapeInfo shape) {
  std::u16string page = qzbench::MakePage(shape.shape, kMB);
  qzbench::Replay replay;
  if (!replay.Record(page, qzbench::BenchProfile())) {
    state.SkipWithError("the library refused the page");
    return;
  }
  std::vector<double> lib, copy;
  for (auto _ : state) {
    auto t0 = Clock::now();
    bool ok = replay.Run();
    double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    if (!ok) {
      state.SkipWithError("a native failed");
      return;
    }
    state.SetIterationTime(seconds);
    lib.push_back(seconds);
    copy.push_back(MemcpySeconds(page.data(), page.size() * sizeof(char16_t)));
  }
  Row& row = gRows[shape.name];
  row.libraryMemcpy = Median(lib) / Median(copy);
  row.libraryUnitsPerSecond = static_cast<double>(page.size()) / Median(lib);
  state.counters["units_per_s"] = row.libraryUnitsPerSecond;
  state.counters["x_memcpy"] = row.libraryMemcpy;
}

// A fresh qzprobe over the same page: the fastest of `repeats`
// translations in processor time, per unit, and the peak per UTF-16 byte;
// both -1 when they cannot be measured. A fresh process starts from an
// empty heap, and its processor time leaves out the waits that other work
// on the machine causes: its time per unit is the one compared across sizes.
struct ProbeResult {
  double nsPerUnit = -1;
  double peakPerByte = -1;
};

ProbeResult RunProbe(const char* shape, size_t units, int repeats) {
  ProbeResult result;
  int fds[2];
  if (pipe(fds) != 0) return result;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    std::string n = std::to_string(units), r = std::to_string(repeats);
    execl(QZ_PROBE_PATH, "qzprobe", shape, n.c_str(), r.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  char text[256] = {};
  ssize_t got = read(fds[0], text, sizeof text - 1);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  unsigned long long pageUnits = 0, peak = 0;
  double seconds = 0;
  if (got <= 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0 ||
      std::sscanf(text, "%llu %lf %llu", &pageUnits, &seconds, &peak) != 3 || pageUnits == 0)
    return result;
  result.nsPerUnit = seconds * 1e9 / static_cast<double>(pageUnits);
  result.peakPerByte = static_cast<double>(peak) / (2.0 * static_cast<double>(pageUnits));
  return result;
}

void Translate(benchmark::State& state, qzbench::ShapeInfo shape, int sizeIndex) {
  const size_t units = kSizesMB[sizeIndex] * kMB;
  std::u16string page = qzbench::MakePage(shape.shape, units);
  qzhost::Engine engine;
  auto table = engine.Table();
  QZ_InitWrapper(table.data(), static_cast<uint32_t>(table.size() * sizeof(void*)));
  std::vector<double> times;
  for (auto _ : state) {
    qzhost::TranslationSession session(engine, qzbench::BenchProfile());
    std::u16string labelled, merged;
    std::string error;
    auto t0 = Clock::now();
    std::u16string taken = page;  // the session takes its page over, as the command does
    bool ok = session.Start(&error) && session.Label(std::move(taken), &labelled, &error);
    auto t1 = Clock::now();
    std::u16string output = ok ? qzbench::StandInServer(labelled) : u"";
    auto t2 = Clock::now();
    ok = ok && session.Merge(std::move(output), &merged, &error);
    auto t3 = Clock::now();
    if (!ok) {
      state.SkipWithError(error.c_str());
      return;
    }
    double seconds = std::chrono::duration<double>((t1 - t0) + (t3 - t2)).count();
    state.SetIterationTime(seconds);
    times.push_back(seconds);
  }
  Row& row = gRows[shape.name];
  row.nsPerUnit[sizeIndex] = Median(times) * 1e9 / static_cast<double>(page.size());
  if (gMemcpyNsPerByte[sizeIndex] == 0) {
    const size_t nBytes = page.size() * sizeof(char16_t);
    std::vector<char> to(nBytes, 1);
    std::vector<double> copies;
    for (int r = 0; r < 5; ++r) {
      auto c0 = Clock::now();
      std::memcpy(to.data(), page.data(), nBytes);
      benchmark::ClobberMemory();
      copies.push_back(std::chrono::duration<double>(Clock::now() - c0).count());
    }
    gMemcpyNsPerByte[sizeIndex] = *std::min_element(copies.begin(), copies.end()) * 1e9 / static_cast<double>(nBytes);
  }
  const ProbeResult probe = RunProbe(shape.name, units, sizeIndex < 3 ? 3 : 1);
  row.probeNsPerUnit[sizeIndex] = probe.nsPerUnit;
  row.peakPerByte[sizeIndex] = probe.peakPerByte;
  state.counters["ns_per_unit"] = row.nsPerUnit[sizeIndex];
  state.counters["probe_ns_per_unit"] = row.probeNsPerUnit[sizeIndex];
  state.counters["peak_per_byte"] = row.peakPerByte[sizeIndex];
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(page.size()));
}

void PrintSummary() {
  std::printf("\nmemcpy ns/byte at 1, 4, 16, 64 MB pages: %.3f %.3f %.3f %.3f (64/1 %.2f)\n", gMemcpyNsPerByte[0],
              gMemcpyNsPerByte[1], gMemcpyNsPerByte[2], gMemcpyNsPerByte[3],
              gMemcpyNsPerByte[0] > 0 ? gMemcpyNsPerByte[3] / gMemcpyNsPerByte[0] : 0);
  std::printf("time per unit: fresh process, processor time (in process, wall clock, in brackets)\n");
  std::printf("\n%-10s %14s %14s %14s %14s %6s %6s %6s %6s %6s %9s %8s\n", "shape", "ns/u 1MB", "4MB", "16MB",
              "64MB", "64/1", "pk 1MB", "4MB", "16MB", "64MB", "lib x mc", "lib MB/s");
  for (const qzbench::ShapeInfo& s : qzbench::Shapes()) {
    auto it = gRows.find(s.name);
    if (it == gRows.end()) continue;
    const Row& r = it->second;
    double ratio = r.probeNsPerUnit[0] > 0 && r.probeNsPerUnit[3] > 0 ? r.probeNsPerUnit[3] / r.probeNsPerUnit[0] : 0;
    std::printf("%-10s", s.name);
    for (int k = 0; k < 4; ++k) std::printf(" %6.1f (%5.1f)", r.probeNsPerUnit[k], r.nsPerUnit[k]);
    std::printf(" %6.2f", ratio);
    for (int k = 0; k < 4; ++k) std::printf(" %6.2f", r.peakPerByte[k]);
    std::printf(" %9.1f %8.0f\n", r.libraryMemcpy, 2 * r.libraryUnitsPerSecond / 1e6);
  }
}

void Register() {
  for (const qzbench::ShapeInfo& s : qzbench::Shapes())
    benchmark::RegisterBenchmark((std::string("Library/") + s.name).c_str(), Library, s)
        ->UseManualTime()
        ->Iterations(15)
        ->Unit(benchmark::kMillisecond);
  for (const qzbench::ShapeInfo& s : qzbench::Shapes()) {
    // A 64 MB page of pieces would merge into some 1.3 G units, past what
    // the library's 32-bit buffers grow to: it stops at 16 MB.
    const int nSizes = s.shape == qzbench::Shape::kPieces ? 3 : 4;
    for (int k = 0; k < nSizes; ++k) {
      const int iterations[] = {9, 5, 3, 3};
      benchmark::RegisterBenchmark((std::string("Translate/") + s.name + "/" + std::to_string(kSizesMB[k]) + "MB").c_str(),
                                   Translate, s, k)
          ->UseManualTime()
          ->Iterations(iterations[k])
          ->Unit(benchmark::kMillisecond);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  Register();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  PrintSummary();
  return 0;
}
