#include "NativeScan.h"

#include <vector>

#include "Scanner.h"

namespace {

class NativeSink : public qzhost::ScanSink {
 public:
  NativeSink(FakeHost& host, int32_t base, const ScanWatch& watch) : host_(host), base_(base), watch_(watch) {}
  bool Directive(std::u16string_view t, int32_t at) override { return Go("directive", {S(t), At(at)}); }
  bool OpenTagBegin(std::u16string_view n, int32_t at) override { return Go("openTagBegin", {S(n), At(at)}); }
  bool Attribute(std::u16string_view n, std::u16string_view v) override { return Go("attribute", {S(n), S(v)}); }
  bool OpenTagEnd(int32_t end, std::u16string_view c) override { return Go("openTagEnd", {At(end), S(c)}); }
  bool CloseTagBegin(std::u16string_view n, int32_t at) override { return Go("closeTagBegin", {S(n), At(at)}); }
  bool CloseTagEnd(int32_t end) override { return Go("closeTagEnd", {At(end)}); }
  bool Text(std::u16string_view t, int32_t at) override { return Go("text", {S(t), At(at)}); }

 private:
  Value S(std::u16string_view text) { return host_.Str(std::u16string(text)); }
  Value At(int32_t offset) { return host_.Int(int64_t{offset} + base_); }
  bool Go(const char* name, std::vector<Value> args) {
    const long index = nCalls_++;
    if (index == watch_.skip) return true;
    qzhost::Engine::Mark mark = host_.engine.Save();
    qzhost::CallResult r = host_.Call(name, std::move(args));
    if (watch_.after) watch_.after(index, name, r);
    host_.engine.Release(mark);
    return true;
  }
  FakeHost& host_;
  int32_t base_;
  const ScanWatch& watch_;
  long nCalls_ = 0;
};

}  // namespace

void ScanThroughNatives(FakeHost& host, std::u16string_view page, int32_t base, const ScanWatch& watch) {
  NativeSink sink(host, base, watch);
  qzhost::ScanPage(page, sink);
}
