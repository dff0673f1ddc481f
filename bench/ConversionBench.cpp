// Throughput of the host's conversions between page bytes and UTF-16 on a
// 10 MB page: mostly ASCII markup with some accented and CJK text, as real
// pages are.
#include <benchmark/benchmark.h>

#include <string>

#include "Utf8.h"

namespace {

constexpr size_t kPageBytes = 10 << 20;

std::u16string Page() {
  const std::u16string row =
      u"<p class=\"row\">Item <?= $i ?> <a href=\"/x?id=<?= $i ?>\">caf\u00e9 cr\u00e8me</a> \u65e5\u672c\u8a9e</p>\n";
  std::u16string page;
  for (size_t bytes = 0, rowBytes = qzhost::EncodeUtf8(row).size(); bytes < kPageBytes; bytes += rowBytes) page += row;
  return page;
}

void DecodeUtf8Page(benchmark::State& state) {
  std::string bytes = qzhost::EncodeUtf8(Page());
  std::u16string text;
  size_t at;
  for (auto _ : state) benchmark::DoNotOptimize(qzhost::DecodeUtf8(bytes, &text, &at));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

void EncodeUtf8Page(benchmark::State& state) {
  std::u16string text = Page();
  size_t bytes = 0;
  for (auto _ : state) bytes = qzhost::EncodeUtf8(text).size();
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

}  // namespace

BENCHMARK(DecodeUtf8Page)->Unit(benchmark::kMillisecond);
BENCHMARK(EncodeUtf8Page)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
