// Throughput of whole translations (pre pass, a server that hands the
// labelled page back with its directives replaced, post pass) on ordinary
// and hostile pages. Every pass must stay linear: the time per unit should
// not grow with the page.
#include <benchmark/benchmark.h>

#include <string>

#include "Engine.h"
#include "Main.h"
#include "Session.h"
#include "TranslationSession.h"

namespace {

// Ordinary page: paragraphs with a directive, a tag with attributes and a
// server-computed attribute value each.
std::u16string OrdinaryPage(int64_t n) {
  std::u16string page = u"<html><head><title>t</title></head><body>\n";
  for (int64_t i = 0; i < n; ++i)
    page += u"<p class=\"row\">Item <?= $i ?> <a href=\"/x?id=<?= $i ?>\">link</a></p>\n";
  return page + u"</body></html>\n";
}

// Hostile page: void elements that are never closed, then stray close tags.
std::u16string UnclosedPage(int64_t n) {
  std::u16string page;
  for (int64_t i = 0; i < n; ++i) page += u"<br>";
  for (int64_t i = 0; i < n; ++i) page += u"</p>";
  return page;
}

// Hostile page: deep nesting of one element.
std::u16string NestedPage(int64_t n) {
  std::u16string page;
  for (int64_t i = 0; i < n; ++i) page += u"<div class=\"d\">";
  page += u"<?= 1 ?>";
  for (int64_t i = 0; i < n; ++i) page += u"</div>";
  return page;
}

// The "server": every directive's code becomes the text "out".
std::u16string RunDirectives(const std::u16string& labelled) {
  std::u16string out;
  size_t p = 0;
  for (;;) {
    size_t open = labelled.find(u"<?", p);
    if (open == std::u16string::npos) break;
    size_t close = labelled.find(u"?>", open);
    if (close == std::u16string::npos) break;
    out.append(labelled, p, open - p);
    out += u"out";
    p = close + 2;
  }
  out.append(labelled, p, std::u16string::npos);
  return out;
}

void Translate(benchmark::State& state, std::u16string (*make)(int64_t)) {
  std::u16string page = make(state.range(0));
  const qzhost::Profile* profile = qzhost::FindProfile("php");
  for (auto _ : state) {
    qzhost::Engine engine;
    auto table = engine.Table();
    QZ_InitWrapper(table.data(), static_cast<uint32_t>(table.size() * sizeof(void*)));
    qzhost::TranslationSession session(engine, *profile);
    std::u16string labelled, merged;
    std::string error;
    if (!session.Start(&error) || !session.Label(page, &labelled, &error) ||
        !session.Merge(RunDirectives(labelled), &merged, &error)) {
      state.SkipWithError(error.c_str());
      return;
    }
    benchmark::DoNotOptimize(merged.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(page.size()));
  state.SetLabel("units of page");
}

void BM_Ordinary(benchmark::State& state) { Translate(state, OrdinaryPage); }
void BM_Unclosed(benchmark::State& state) { Translate(state, UnclosedPage); }
void BM_Nested(benchmark::State& state) { Translate(state, NestedPage); }

BENCHMARK(BM_Ordinary)->RangeMultiplier(10)->Range(100, 10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Unclosed)->RangeMultiplier(10)->Range(1000, 100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Nested)->RangeMultiplier(10)->Range(100, 10000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
