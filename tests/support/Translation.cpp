#include "Translation.h"

#include "FaultAllocator.h"
#include "Memory.h"
#include "NativeScan.h"
#include "Utility.h"

const std::u16string kLockBegin = u"<qz:lock code=\"%s\">", kLockEnd = u"</qz:lock>";
const std::u16string kValue = u"hilitecolor=%22Dyn%20Up-to-Date%20Color%22";
const std::u16string kHilite = u" qzTranslatedValue=\"" + kValue + u"\"";
const std::u16string kFailed = u"(failed)";

std::u16string Font(const std::u16string& run) {
  return u"<font hilitecolor=\"Dyn Up-to-Date Color\">" + run + u"</font>";
}

std::u16string TagAttr(const std::u16string& record) {
  return u" qzTranslatedValue=\"" + record + u" " + kValue + u"\"";
}

std::u16string Lock(const std::u16string& code, const std::u16string& output, bool bInvisible) {
  char16_t* encoded = EncodeURL(code.c_str(), static_cast<int32_t>(code.size()));
  std::u16string opening = u"<qz:lock code=\"" + std::u16string(encoded) + u"\">";
  MemFree(encoded);
  return opening + (bInvisible ? u"<qz:invisible>" + code + u"</qz:invisible>" : u"") + output + kLockEnd;
}

std::u16string Serve(std::u16string s, const Pairs& server) {
  for (const auto& [from, to] : server) {
    if (from.empty()) s = to;
    for (size_t p = s.find(from); !from.empty() && p != std::u16string::npos; p = s.find(from, p + to.size()))
      s.replace(p, from.size(), to);
  }
  return s;
}

Pairs Answer(const std::u16string& output) { return {{u"", output}}; }

void TranslationTest::TearDown() {
  FaultFailAt(0);
  lockEmpty_ = -1, lockBegin_ = kLockBegin;
  EXPECT_EQ(Translate(u"<p><%= n %></p>", {{u"<%= n %>", u"Bob"}}), u"<p>" + Lock(u"<%= n %>", Font(u"Bob")) + u"</p>");
  LibraryTest::TearDown();
}

std::u16string TranslationTest::Label(const std::u16string& page) {
  if (!Call("initialize", {}).ok) return kFailed;
  Value prefixes = host.StrArray({u"asp:", u"qz:", u"x:", u"form"});
  bool bBegun = Call("beginPreTranslate", {host.Str(u"<%"), host.Str(u"%>"), prefixes, host.StrArray({})}).ok;
  if (bBegun) ScanThroughNatives(host, page);
  auto r = Call("endPreTranslate", {host.Str(page)});
  return bBegun && r.ok ? host.Text(r.result) : kFailed;
}

std::u16string TranslationTest::End(const std::u16string& page, const std::u16string& output) {
  std::vector<Value> args = {host.Str(page), host.Str(output), host.Str(lockBegin_), host.Str(kLockEnd),
                             host.Str(kValue)};
  if (lockEmpty_ >= 0) args.push_back(qzhost::Engine::Bool(lockEmpty_ != 0));
  auto r = Call("endPostTranslate", args);
  if (r.ok) return host.Text(r.result);
  EXPECT_EQ(r.result, FakeHost::kUnset) << "a failed merge leaves the result alone";
  return kFailed;
}

std::u16string TranslationTest::Translate(const std::u16string& page, const Pairs& server,
                                          const std::optional<std::u16string>& scanned,
                                          const std::optional<std::u16string>& origText) {
  std::u16string output = Label(page);
  if (output == kFailed) return kFailed;
  output = Serve(output, server);
  Call("beginPostTranslate", {});
  ScanThroughNatives(host, scanned.value_or(output));
  return End(origText.value_or(page), output);
}
