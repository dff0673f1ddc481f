// Throughput of the host's conversions between page bytes and UTF-16 on a
// 10 MB page: mostly ASCII markup with some accented and CJK text, as real
// pages are; and of reading whole pages, their encoding found as the
// command finds it.
#include <benchmark/benchmark.h>

#include <string>

#include "Encoding.h"
#include "PageEncoding.h"
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

// Reads the page written in the encoding after the declaration ("" for
// none), as the command reads a page: found, decoded, checked to come back.
void ReadPage(benchmark::State& state, const std::string& encoding, const std::u16string& declaration) {
  std::string bytes = qzhost::EncodeText(declaration + Page(), encoding);
  std::u16string text;
  for (auto _ : state) {
    qzhost::PageEncoding found;
    std::vector<std::string> warnings;
    std::string error;
    if (!qzhost::DecodePage(bytes, "", qzhost::ServerDeclaration::kNone, &text, &found, &warnings, &error))
      state.SkipWithError(error.c_str());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

}  // namespace

BENCHMARK(DecodeUtf8Page)->Unit(benchmark::kMillisecond);
BENCHMARK(EncodeUtf8Page)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ReadPage, Utf8Undeclared, "UTF-8", u"")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ReadPage, ShiftJisDeclared, "Shift_JIS", u"<meta charset=\"Shift_JIS\">")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ReadPage, ShiftJisGuessed, "Shift_JIS", u"")->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
