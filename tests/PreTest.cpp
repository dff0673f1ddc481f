// The pre pass: settings, directives, text runs and the open-tag handlers,
// driven through the natives as the host's scanner drives them.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <random>
#include <utility>

#include "FakeHost.h"
#include "Main.h"
#include "Memory.h"
#include "Pre.h"

namespace {

using Places = std::vector<std::pair<int32_t, int32_t>>;
using Texts = std::vector<std::u16string>;

Texts Strings(const StringArray& a) {
  Texts out;
  for (int32_t i = 0; i < a.nSize; ++i) out.emplace_back(a.pData[i]);
  return out;
}

std::vector<int32_t> Ints(const IntArray& a) { return std::vector<int32_t>(a.pData, a.pData + a.nSize); }

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class PrePass : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    ASSERT_EQ(host.Call("initialize", {}).ok, 1);
  }

  int Begin(std::vector<Value> args) { return host.Call("beginPreTranslate", std::move(args)).ok; }
  // Short form: "<%" and "%>", the given tag prefixes, no extra non-HTML tags.
  void BeginWith(const Texts& prefixes) {
    ASSERT_EQ(Begin({host.Str(u"<%"), host.Str(u"%>"), host.StrArray(prefixes), qzhost::kNull}), 1);
  }
  // Full form with attribute rules.
  void BeginWithRules(const Texts& names, const Texts& values, const std::vector<int64_t>& flags) {
    ASSERT_EQ(Begin({host.Str(u"<%"), host.Str(u"%>"), host.StrArray({u"x:"}), qzhost::kNull, host.StrArray(names),
                     host.StrArray(values), host.IntArray(flags)}),
              1);
  }
  void End() { host.Call("endPreTranslate", {host.Str(u"")}); }
  // Plays a host without (or again with) one operation.
  void SetSlot(int slot, void* op) {
    host.table[slot] = op;
    host.Install();
  }

  void Call(const std::string& name, std::vector<Value> args) {
    auto r = host.Call(name, std::move(args));
    EXPECT_EQ(r.ok, 1) << name;
  }

  // A small stand-in for the host's scanner: reports "<%...%>" and "<!...>"
  // as directives, tags with their attributes (quoted or bare values, "/"
  // as closing text of a tag that closes itself) and the text between them.
  void Scan(const std::u16string& page, int32_t base = 0) {
    size_t n = page.size(), i = 0, textStart = 0;
    auto flushText = [&](size_t end) {
      if (end > textStart) Call("text", {host.Str(page.substr(textStart, end - textStart)), host.Int(base + textStart)});
    };
    auto isWhite = [](char16_t c) { return c == u' ' || c == u'\t' || c == u'\n'; };
    while (i < n) {
      if (page[i] != u'<') {
        ++i;
        continue;
      }
      flushText(i);
      if (page.compare(i, 2, u"<%") == 0 || page.compare(i, 2, u"<!") == 0) {
        size_t end = page[i + 1] == u'%' ? page.find(u"%>", i + 2) + 2 : page.find(u'>', i) + 1;
        Call("directive", {host.Str(page.substr(i, end - i)), host.Int(base + i)});
        i = end;
      } else if (page[i + 1] == u'/') {
        size_t end = page.find(u'>', i);
        Call("closeTagBegin", {host.Str(page.substr(i + 2, end - i - 2)), host.Int(base + i)});
        Call("closeTagEnd", {host.Int(base + end + 1)});
        i = end + 1;
      } else {
        size_t j = i + 1;
        while (!isWhite(page[j]) && page[j] != u'>' && page[j] != u'/') ++j;
        Call("openTagBegin", {host.Str(page.substr(i + 1, j - i - 1)), host.Int(base + i)});
        std::u16string closing;
        for (;;) {
          while (isWhite(page[j])) ++j;
          if (page[j] == u'>') break;
          if (page[j] == u'/') {
            closing = u"/";
            ++j;
            continue;
          }
          size_t k = j;
          while (!isWhite(page[k]) && page[k] != u'=' && page[k] != u'>') ++k;
          std::u16string name = page.substr(j, k - j), value;
          j = k;
          if (page[j] == u'=') {
            char16_t quote = page[j + 1];
            if (quote == u'"' || quote == u'\'') {
              k = page.find(quote, j + 2);
              value = page.substr(j + 2, k - j - 2);
              j = k + 1;
            } else {
              for (k = ++j; !isWhite(page[k]) && page[k] != u'>'; ++k) {}
              value = page.substr(j, k - j);
              j = k;
            }
          }
          Call("attribute", {host.Str(name), host.Str(value)});
        }
        Call("openTagEnd", {host.Int(base + j + 1), host.Str(closing)});
        i = j + 1;
      }
      textStart = i;
    }
    flushText(n);
  }

  static Places Pairs(const IntArray& a, const IntArray& b) {
    Places out;
    for (int32_t i = 0; i < a.nSize; ++i) out.emplace_back(a.pData[i], b.pData[i]);
    return out;
  }
  static Places LabelPlaces() { return Pairs(gOffsetArray, gOffsetTypeArray); }
  static Places AttrPlaces() { return Pairs(gAttrOffsetArray, gAttrLengthArray); }
  // Places of a page scanned on its own.
  Places PlacesOf(const std::u16string& page) {
    gOffsetArray.nSize = gOffsetTypeArray.nSize = 0;
    Scan(page);
    return LabelPlaces();
  }
};

// ---------------------------------------------------------------------------
// Settings

TEST_F(PrePass, SettingsAreReadIntoTheirListsWithScriptAndStyleAfter) {
  ASSERT_EQ(Begin({host.Str(u"<?"), host.Str(u"?>"), host.StrArray({u"script", u"asp:"}),
                   host.engine.Array({host.Int(7), host.Str(u"pre")}), host.StrArray({u"runat"}), host.StrArray({u"server"}),
                   host.IntArray({1})}),
            1);
  EXPECT_EQ(std::u16string(gDirStartChars), u"<?");
  EXPECT_EQ(Strings(gTagPrefixes), (Texts{u"script", u"asp:", u"script", u"style"})) << "script twice";
  EXPECT_EQ(Strings(gTagsContainingNonHtml), (Texts{u"7", u"pre", u"script", u"style"})) << "a number as its text";
  EXPECT_EQ(Ints(gAttrsDenoteNonHtmlTags), std::vector<int32_t>{1});
  End();
  EXPECT_EQ(gDirStartChars, nullptr);
  EXPECT_EQ(gTagPrefixes.pData, nullptr);
  EXPECT_EQ(gAttrsForServerTags.nSize, 1) << "rule lists outlive the pass";

  // The short form empties the rule lists an earlier full form filled.
  ASSERT_EQ(Begin({host.Str(u""), host.Str(u""), qzhost::kNull, qzhost::kNull}), 1);
  EXPECT_EQ(gAttrsForServerTags.nSize + gAttrValuesForServerTags.nSize + gAttrsDenoteNonHtmlTags.nSize, 0);
  EXPECT_EQ(std::u16string(gDirEndChars), u"") << "an empty text, not a missing one";
  EXPECT_EQ(Strings(gTagPrefixes), (Texts{u"script", u"style"})) << "null list";
}

TEST_F(PrePass, WrongCountsAndUnreadableListsFail) {
  for (size_t argc : {0u, 3u, 5u, 6u, 8u}) {
    std::vector<Value> args(argc, qzhost::kNull);
    if (argc > 0) args[0] = host.Str(u"<%");
    EXPECT_EQ(Begin(args), 0) << argc;
    EXPECT_EQ(gDirStartChars, nullptr) << "no directive text for a wrong count";
    EXPECT_NE(gOpenTagIsNonHtmlServerTag.pData, nullptr) << "the nine lists are made";
    EXPECT_EQ(gTagPrefixes.nSize, 0);
    End();
  }
  // A list that is neither null nor an array.
  EXPECT_EQ(Begin({host.Str(u"<%"), host.Str(u"%>"), host.Str(u"x:"), qzhost::kNull}), 0);
  End();
  EXPECT_EQ(Begin({host.Str(u"<%"), host.Str(u"%>"), qzhost::kNull, qzhost::kNull, qzhost::kNull, qzhost::kNull,
                   host.Int(1)}),
            0);
  End();
}

TEST_F(PrePass, MissingHostOperations) {
  std::vector<Value> args = {host.Str(u"<%"), host.Str(u"%>"), host.StrArray({u"a:", u"b:"}), qzhost::kNull};
  const auto all = host.table;
  // No array length: nothing to read, yet success.
  host.ClearSlot(kSlotArrayLength);
  EXPECT_EQ(Begin(args), 1);
  EXPECT_EQ(Strings(gTagPrefixes), (Texts{u"script", u"style"}));
  End();
  SetSlot(kSlotArrayLength, all[kSlotArrayLength]);
  // No class name, or no object conversion: the lists cannot be trusted.
  host.ClearSlot(kSlotClassName);
  EXPECT_EQ(Begin(args), 0);
  End();
  SetSlot(kSlotClassName, all[kSlotClassName]);
  host.ClearSlot(kSlotValueToObject);
  EXPECT_EQ(Begin(args), 0);
  End();
  SetSlot(kSlotValueToObject, all[kSlotValueToObject]);
  // No value to string: the pass opens with empty directive texts, and a
  // second begin is still refused until the pass ends.
  host.ClearSlot(kSlotValueToString);
  EXPECT_EQ(Begin(args), 1);
  ASSERT_NE(gDirStartChars, nullptr);
  EXPECT_EQ(gDirStartChars[0], 0);
  EXPECT_EQ(Strings(gTagPrefixes), (Texts{u"script", u"style"})) << "unconvertible elements are skipped";
  EXPECT_EQ(Begin(args), 0);
  End();
}

// Element 1 cannot be fetched; strings do not convert to integers.
qzhost::Engine* gRealEngine;
ArrayElementOp gRealElement;
ValueToIntegerOp gRealToInteger;
int ElementMissingAtOne(void* cx, void* object, int32_t index, ScriptValue* out) {
  return index == 1 ? 0 : gRealElement(cx, object, index, out);
}
int IntegerOfNumbersOnly(void* cx, ScriptValue v, intptr_t* out) {
  return gRealEngine->IsString(v) ? 0 : gRealToInteger(cx, v, out);
}

TEST_F(PrePass, ElementsThatCannotBeReadAreSkippedOrRepeatThePreviousInteger) {
  gRealEngine = &host.engine;
  gRealElement = reinterpret_cast<ArrayElementOp>(host.table[kSlotArrayElement]);
  gRealToInteger = reinterpret_cast<ValueToIntegerOp>(host.table[kSlotValueToInteger]);
  host.table[kSlotArrayElement] = reinterpret_cast<void*>(&ElementMissingAtOne);
  host.table[kSlotValueToInteger] = reinterpret_cast<void*>(&IntegerOfNumbersOnly);
  host.Install();
  ASSERT_EQ(Begin({host.Str(u"<%"), host.Str(u"%>"), host.StrArray({u"a:", u"b:", u"c:"}), qzhost::kNull,
                   qzhost::kNull, qzhost::kNull,
                   host.engine.Array({host.Str(u"9"), host.Int(5), host.Int(6), host.Str(u"9"), host.Int(0)})}),
            1);
  EXPECT_EQ(Strings(gTagPrefixes), (Texts{u"a:", u"c:", u"script", u"style"}));
  EXPECT_EQ(Ints(gAttrsDenoteNonHtmlTags), (std::vector<int32_t>{0, 6, 6, 0}));
  End();
}

TEST_F(PrePass, ASecondBeginWithoutEndIsRefusedAndLeavesThePassAlone) {
  BeginWith({u"x:"});
  Scan(u"<x:a><p>");
  char16_t* start = gDirStartChars;
  EXPECT_EQ(Begin({host.Str(u"<?"), host.Str(u"?>"), host.StrArray({u"y:"}), qzhost::kNull}), 0);
  EXPECT_EQ(gDirStartChars, start);
  EXPECT_EQ(Strings(gTagPrefixes), (Texts{u"x:", u"script", u"style"}));
  EXPECT_EQ(Strings(gOpenTags), (Texts{u"x:a", u"p"}));
  Scan(u"</x:a>", 8);
  EXPECT_EQ(LabelPlaces(), (Places{{0, 1}, {5, 6}, {8, 2}, {14, 6}})) << "the open pass goes on";
  End();
  EXPECT_EQ(Begin({host.Str(u"<?"), host.Str(u"?>"), host.StrArray({u"y:"}), qzhost::kNull}), 1);
  EXPECT_EQ(gOpenTags.nSize, 0);
  End();
}

// Every allocation of a full-form begin, failed in turn: the nine list
// creations and the two directive texts fail the call; any later one only
// loses one list entry. Nothing leaks, and the pass can always be ended and
// begun again.
TEST_F(PrePass, AllocationFailuresInBeginFailOrLoseOneEntry) {
  std::vector<Value> args = {host.Str(u"<%"), host.Str(u"%>"), host.StrArray({u"x:", u"y:"}),
                             host.StrArray({u"pre"}), host.StrArray({u"runat", u"id"}),
                             host.StrArray({u"server", u"main"}), host.IntArray({1, 0})};
  auto entries = [] {
    return gTagPrefixes.nSize + gTagsContainingNonHtml.nSize + gAttrsForServerTags.nSize +
           gAttrValuesForServerTags.nSize + gAttrsDenoteNonHtmlTags.nSize;
  };
  ASSERT_EQ(Begin(args), 1);
  const int32_t nAll = entries();
  End();
  for (long k = 1;; ++k) {
    ReleaseLibraryState();
    ASSERT_EQ(MemOutstanding(), 0) << k;
    ASSERT_EQ(host.Call("initialize", {}).ok, 1);
    MemFailAt(k);
    int ok = Begin(args);
    bool bFailed = MemAttempts() >= k;
    MemFailAt(0);
    if (!bFailed) {
      EXPECT_EQ(ok, 1);
      EXPECT_EQ(entries(), nAll);
      break;
    }
    EXPECT_EQ(ok, k <= 11 ? 0 : 1) << "allocation " << k;
    if (ok) {
      EXPECT_EQ(entries(), nAll - 1) << "allocation " << k;
    }
    End();
    EXPECT_EQ(Begin(args), 1) << "after allocation " << k;
    End();
  }
}

// ---------------------------------------------------------------------------
// Directives

TEST_F(PrePass, TaglibDeclarationsInEverySpelling) {
  const std::pair<std::u16string, Texts> cases[] = {
      {u"<%@ taglib prefix=\"x\" uri=\"u\" %>", {u"x:"}},
      {u"<%@ taglib prefix='x' uri=\"u\" %>", {u"x:"}},
      {u"<%@ taglib prefix=x uri=\"u\" %>", {u"x:"}},
      {u"<%@ taglib PREFIX = \"y\" %>", {u"y:"}},
      {u"<%@TagLib prefix=z%>", {u"z:"}},
      {u"<%@ taglib prefix = \"a b\" %>", {u"a:"}},
      {u"<%@ taglib prefix=\" %>", {u":"}},                           // one quote
      {u"<%@ taglib uri=\"prefix\" PREFIX=\"w\" %>", {}},             // "prefix" without "=" after it
      {u"<%@ taglib prefix uri=\"u\" %>", {}},
      {u"<%@ taglibs prefix=\"x\" %>", {}},
      {u"<%@ page prefix=\"x\" %>", {}},
      {u"<% @taglib prefix=\"x\" %>", {}},
      {u"<%@ taglib %>", {}},
      {u"<%@ taglib prefix=" + std::u16string(130, u'q') + u" %>", {std::u16string(120, u'q') + u":"}},
  };
  for (const auto& [directive, added] : cases) {
    BeginWith({});
    Call("directive", {host.Str(directive), host.Int(0)});
    Texts expected = {u"script", u"style"};
    expected.insert(expected.end(), added.begin(), added.end());
    EXPECT_EQ(Strings(gTagPrefixes), expected) << std::string(directive.begin(), directive.end());
    End();
  }
  // The declared prefix makes server tags from then on, also when it was
  // declared inside non-HTML content, which itself gets no places.
  BeginWith({});
  EXPECT_EQ(PlacesOf(u"<x:a></x:a><script><%@ taglib prefix=\"x\" %></script><x:a/>"),
            (Places{{11, 1}, {52, 6}, {52, 1}, {58, 6}}));
  End();
}

TEST_F(PrePass, ConfiguredDirectivesAndIncludes) {
  ASSERT_EQ(Begin({host.Str(u"<?"), host.Str(u"?>"), qzhost::kNull, qzhost::kNull}), 1);
  auto recorded = [&](const std::u16string& text) {
    gOffsetArray.nSize = gOffsetTypeArray.nSize = 0;
    Call("directive", {host.Str(text), host.Int(40)});
    return LabelPlaces();
  };
  EXPECT_EQ(recorded(u"<? a ?>"), (Places{{40, 5}, {47, 6}}));
  EXPECT_EQ(recorded(u"?> x <?"), (Places{{40, 5}, {47, 6}})) << "end characters first";
  EXPECT_EQ(recorded(u"<?>"), Places{}) << "the two lengths exceed the directive's";
  EXPECT_EQ(recorded(u"<?>>"), (Places{{40, 5}, {44, 6}})) << "characters may overlap";
  EXPECT_EQ(recorded(u"<% a %>"), Places{});
  EXPECT_EQ(recorded(u"<!-- #INCLUDE file=\"a\" -->"), (Places{{40, 5}, {66, 6}}));
  EXPECT_EQ(recorded(u"<!--#Include-->"), (Places{{40, 5}, {55, 6}}));
  EXPECT_EQ(recorded(u"<!-- #iNclude -->"), Places{});
  End();
  // No configured characters: only includes count.
  ASSERT_EQ(Begin({host.Str(u""), host.Str(u"?>"), qzhost::kNull, qzhost::kNull}), 1);
  EXPECT_EQ(recorded(u"<? a ?>"), Places{});
  EXPECT_EQ(recorded(u"<!-- #include virtual=\"a\" -->"), (Places{{40, 5}, {69, 6}}));
  End();
  // Long characters, searched with and without memory for the search table.
  const std::u16string longStart = std::u16string(70, u'a') + u"<";
  ASSERT_EQ(Begin({host.Str(longStart), host.Str(u">"), qzhost::kNull, qzhost::kNull}), 1);
  for (long failAt : {0L, 1L}) {
    MemFailAt(failAt);
    EXPECT_EQ(recorded(u"aa" + longStart + u" >"), (Places{{40, 5}, {115, 6}})) << failAt;
    EXPECT_EQ(recorded(longStart.substr(1) + u"a >"), Places{}) << failAt;
    MemFailAt(0);
  }
  End();
  // Inside non-HTML content nothing is recorded.
  BeginWith({});
  EXPECT_EQ(PlacesOf(u"<style><% a %><!-- #include --></style>"), (Places{{0, 1}, {39, 6}}));
  End();
}

// ---------------------------------------------------------------------------
// Text runs

TEST_F(PrePass, ExpressionsInZboutputBlocks) {
  BeginWith({u"zb"});
  Scan(u"<zboutput>");
  const size_t nTag = gOffsetArray.nSize;
  auto recorded = [&](const std::u16string& text, int offset) {
    gOffsetArray.nSize = gOffsetTypeArray.nSize = static_cast<int32_t>(nTag);
    Call("text", {host.Str(text), host.Int(offset)});
    Places all = LabelPlaces();
    return Places(all.begin() + nTag, all.end());
  };
  EXPECT_EQ(recorded(u"a #x# b", 100), (Places{{102, 3}, {105, 6}}));
  EXPECT_EQ(recorded(u"#a# #b", 0), (Places{{0, 5}, {6, 6}})) << "a later unpaired # drops the pairs";
  EXPECT_EQ(recorded(u"#b", 0), Places{}) << "an unpaired # at index 0";
  EXPECT_EQ(recorded(u"##", 10), (Places{{10, 3}, {12, 6}}));
  EXPECT_EQ(recorded(u"#f(#x#)# #y#", 0), (Places{{0, 3}, {8, 6}, {9, 3}, {12, 6}}));
  EXPECT_EQ(recorded(u"#('#')#", 0), Places{});
  EXPECT_EQ(recorded(u"x #a(# y", 50), (Places{{50, 5}, {58, 6}}));
  // A wrong count fails inside a block only.
  gOffsetArray.nSize = gOffsetTypeArray.nSize = static_cast<int32_t>(nTag);
  auto r = host.Call("text", {host.Str(u"#x#")});
  EXPECT_EQ(r.ok, 0);
  EXPECT_EQ(r.result, qzhost::kTrue);
  EXPECT_EQ(gOffsetArray.nSize, static_cast<int32_t>(nTag));
  // A host that cannot convert the text: nothing is recorded, no failure.
  void* toString = host.table[kSlotValueToString];
  host.ClearSlot(kSlotValueToString);
  EXPECT_EQ(recorded(u"#x#", 0), Places{});
  SetSlot(kSlotValueToString, toString);
  Scan(u"</zboutput>");
  EXPECT_EQ(host.Call("text", {host.Str(u"#x#")}).ok, 1);
  EXPECT_EQ(recorded(u"#x#", 0), Places{}) << "outside every block";
  Scan(u"<zboutput><script>");
  EXPECT_EQ(recorded(u"#x#", 0), Places{}) << "inside non-HTML content";
  End();
}

// ---------------------------------------------------------------------------
// Tags

TEST_F(PrePass, ServerTagsOrdinaryTagsAndNonHtmlContent) {
  BeginWith({u"x:"});
  EXPECT_EQ(PlacesOf(u"<x:a>t</x:a>"), (Places{{0, 1}, {5, 6}, {6, 2}, {12, 6}}));
  EXPECT_EQ(PlacesOf(u"<X:A/>"), (Places{{0, 1}, {6, 6}})) << "prefixes ignore case";
  EXPECT_EQ(PlacesOf(u"<script>a<b>c<%x%></script>"), (Places{{0, 1}, {27, 6}}));
  EXPECT_EQ(PlacesOf(u"<style/><x:a/>"), (Places{{0, 1}, {8, 6}, {8, 1}, {14, 6}})) << "non-HTML closed itself";
  EXPECT_EQ(PlacesOf(u"<x:a><p></x:a>"), (Places{{0, 1}, {5, 6}, {8, 2}, {14, 6}}));
  EXPECT_EQ(PlacesOf(u"</x:b></p>"), (Places{{0, 2}, {6, 6}})) << "unmatched close tags";
  EXPECT_EQ(gOpenTags.nSize, 0) << "p was popped with x:a; unmatched entries leave at their end";
  gAttrOffsetArray.nSize = gAttrLengthArray.nSize = 0;
  Scan(u"<img src=\"a\"><br/><x:a b=\"c\"><i d=e></i></x:a>", 10);
  EXPECT_EQ(AttrPlaces(), (Places{{14, 8}, {41, 4}})) << "ordinary tags with attributes only";
  // The innermost of equal names, ignoring case, is closed.
  Scan(u"<X:A><x:a><p></x:A>");
  EXPECT_EQ(Strings(gOpenTags), (Texts{u"img", u"X:A"})) << "img is never closed";
  End();
}

TEST_F(PrePass, AttributeRules) {
  BeginWithRules({u"runat", u"id", u"runat"}, {u"server", u"main", u"SERVER"}, {1, 1, 1});
  EXPECT_EQ(PlacesOf(u"<div runat=\"server\"><x:a/><img src=a></div>"), (Places{{0, 1}, {43, 6}}));
  EXPECT_EQ(AttrPlaces(), Places{}) << "nothing inside non-HTML content";
  EXPECT_EQ(PlacesOf(u"<form runat=\"server\"><x:a/></form>"), (Places{{0, 1}, {21, 6}, {21, 1}, {27, 6}, {27, 2}, {34, 6}}));
  EXPECT_EQ(PlacesOf(u"<p ID=\"MAIN\"><x:a/></p>"), (Places{{0, 1}, {13, 6}, {13, 1}, {19, 6}, {19, 2}, {23, 6}}))
      << "a rule other than runat keeps the content HTML";
  EXPECT_EQ(PlacesOf(u"<x:a id=\"main\"/><x:b/>"), (Places{{0, 1}, {16, 6}, {16, 1}, {22, 6}}))
      << "already a server tag: no second code 1";
  End();

  // Rule lists of unequal length are read as far as the shortest; a missing
  // flag counts as 0.
  BeginWithRules({u"runat", u"id"}, {u"server"}, {});
  EXPECT_EQ(PlacesOf(u"<p id=\"server\"></p>"), Places{});
  EXPECT_EQ(PlacesOf(u"<div runat=server><x:a/></div>"), (Places{{0, 1}, {18, 6}, {18, 1}, {24, 6}, {24, 2}, {30, 6}}));
  End();
}

TEST_F(PrePass, ZboutputBlocksCollapseWhenTheyHoldOneExpression) {
  BeginWith({u"zb"});
  EXPECT_EQ(PlacesOf(u"<zboutput>#x#</zboutput>"), (Places{{0, 4}, {24, 6}}));
  EXPECT_EQ(PlacesOf(u"<zboutput> #x#</zboutput>"), (Places{{0, 1}, {10, 6}, {11, 3}, {14, 6}, {14, 2}, {25, 6}}));
  EXPECT_EQ(PlacesOf(u"<zboutput a=\"1\">#x#</zboutput><zboutput>#y#</zboutput>"),
            (Places{{0, 1}, {16, 6}, {16, 3}, {19, 6}, {19, 2}, {30, 6}, {30, 4}, {54, 6}}))
      << "a later block collapses whatever the earlier one had";
  EXPECT_EQ(PlacesOf(u"<zboutput>#x##y#</zboutput>").size(), 8u);
  // A close tag with no open block keeps the depth at 0, so the text after
  // it is ordinary text and the next block still works.
  EXPECT_EQ(PlacesOf(u"</zboutput>#x#<zboutput>#y#</zboutput>"), (Places{{0, 2}, {11, 6}, {14, 4}, {38, 6}}));
  EXPECT_EQ(gInsideZboutput, 0);
  End();
}

// Events the scanner should not send, or sends after the pass has ended,
// change nothing they have no entry for and never crash.
TEST_F(PrePass, StrayEventsAreIgnored) {
  BeginWith({u"x:"});
  gbHasAttrs = 0;
  EXPECT_EQ(PreAttributeVX(u"a", u"b"), 1);
  EXPECT_EQ(PreOpenTagEnd(5, u"/"), 1);
  EXPECT_EQ(PreCloseTagEnd(5), 1);
  EXPECT_EQ(gbHasAttrs, 0);
  Scan(u"<x:a><p>");
  Call("closeTagEnd", {host.Int(20)});
  Call("attribute", {host.Str(u"a"), host.Str(u"b")});
  Call("openTagEnd", {host.Int(21), host.Str(u"/")});
  EXPECT_EQ(Strings(gOpenTags), (Texts{u"x:a", u"p"}));
  EXPECT_EQ(LabelPlaces(), (Places{{0, 1}, {5, 6}}));
  EXPECT_EQ(AttrPlaces(), Places{});
  End();
  // Still in the pre mode after the end: the stack goes on without its index.
  Scan(u"</P><x:a/><b></X:a>", 30);
  EXPECT_EQ(Strings(gOpenTags), Texts{});
}

// The close-tag lookup must give the innermost entry of the name, ignoring
// case, exactly as a search from the top of the stack would; also while
// memory runs out under it.
TEST_F(PrePass, CloseTagsFindTheInnermostEntryOfTheirName) {
  // A few names that differ only in case or lie above 128, and enough
  // others that the index's table has to resolve collisions.
  Texts names = {u"a", u"A", u"b", u"x:a", u"X:A", u"td", u"TD", u"", u"\u00c9", u"\u00e9"};
  for (char16_t k = 0; k < 600; ++k) names.push_back({k % 2 ? u't' : u'T', static_cast<char16_t>(u'0' + k / 2)});
  std::mt19937 random(7);
  // Allocations 2 and 3 are the index's first ones: it is never built.
  for (long failAt : {0L, 2L, 3L, 40L, 400L}) {
    BeginWith({u"x:"});
    MemFailAt(failAt);
    for (int step = 0; step < 20000; ++step) {
      int32_t offset = step * 10;
      std::u16string name;
      if (random() % 4 != 0) {
        name = names[random() % 10 == 0 ? random() % 10 : random() % names.size()];
        PreOpenTagBegin(name.c_str(), offset);
        PreOpenTagEnd(offset + 5, random() % 8 == 0 ? u"/" : u"");
        continue;
      }
      // Mostly one of the top two entries, in either letter case; else a
      // name never opened, or now and then one of the small set (deep).
      unsigned choice = random() % 8;
      if (choice < 6 && gOpenTags.nSize > 0) {
        name = gOpenTags.pData[gOpenTags.nSize - 1 - random() % std::min(gOpenTags.nSize, 2)];
        if (random() % 2)
          for (char16_t& c : name) c = c >= u'a' && c <= u'z' ? c - 32 : c;
      } else {
        name = choice == 7 ? names[random() % 10] : u"u" + names[random() % names.size()];
      }
      int32_t iExpected = StringArrayFindLastExact(&gOpenTags, name.c_str());
      int32_t nExpected = iExpected >= 0 ? iExpected + 1 : gOpenTags.nSize + 1;
      long nAttempts = MemAttempts();
      PreCloseTagBegin(name.c_str(), offset);
      bool bFailedHere = failAt > nAttempts && failAt <= MemAttempts();
      if (!bFailedHere && gOpenTags.nSize != nExpected) {
        ADD_FAILURE() << "step " << step << " fail at " << failAt;
        break;
      }
      PreCloseTagEnd(offset + 5);
    }
    MemFailAt(0);
    End();
  }
}

TEST_F(PrePass, TenThousandsOfUnclosedTagsStayFast) {
  BeginWith({u"x:"});
  // Values are made first, and the natives called as the host calls them,
  // so that only the library is timed.
  const int32_t n = 100000;
  std::vector<Value> offsets;
  for (int32_t i = 0; i <= 2 * n; ++i) offsets.push_back(host.Int(i * 4));
  Value br = host.Str(u"br"), p = host.Str(u"p"), none = host.Str(u"");
  auto native = [&](const char* name) { return host.engine.Find(name); };
  qzhost::NativeFn openBegin = native("openTagBegin"), openEnd = native("openTagEnd"),
                   closeBegin = native("closeTagBegin"), closeEnd = native("closeTagEnd");
  int nOk = 0;
  auto start = std::chrono::steady_clock::now();
  for (int32_t i = 0; i < 2 * n; ++i) {
    Value rval;
    Value tag[2] = {i < n ? br : p, offsets[i]};
    Value end[2] = {offsets[i + 1], none};
    if (i < n) {
      nOk += openBegin(&host.engine, nullptr, 2, tag, &rval);
      nOk += openEnd(&host.engine, nullptr, 2, end, &rval);
    } else {
      nOk += closeBegin(&host.engine, nullptr, 2, tag, &rval);
      nOk += closeEnd(&host.engine, nullptr, 1, end, &rval);
    }
  }
  EXPECT_LT(SecondsSince(start), 1.0);
  EXPECT_EQ(nOk, 4 * n);
  EXPECT_EQ(gOpenTags.nSize, n);
  // Closing deep inside, over and over: each entry is popped once.
  start = std::chrono::steady_clock::now();
  for (int32_t i = 0; i < 50000; ++i) {
    PreOpenTagBegin(u"x:a", i);
    for (int k = 0; k < 3; ++k) PreOpenTagBegin(u"i", i);
    PreCloseTagBegin(u"X:A", i);
    PreCloseTagEnd(i);
  }
  EXPECT_LT(SecondsSince(start), 1.0);
  EXPECT_EQ(gOpenTags.nSize, n);
  End();
}

TEST_F(PrePass, LongTextRunsStayFast) {
  BeginWith({u"zb"});
  Scan(u"<zboutput>");
  std::u16string opens;
  for (int i = 0; i < 1000000; ++i) opens += u"#(";
  auto start = std::chrono::steady_clock::now();
  Call("text", {host.Str(opens), host.Int(10)});
  EXPECT_LT(SecondsSince(start), 1.0);
  EXPECT_EQ(gOffsetArray.nSize, 2) << "no pair, the unpaired # at index 0";

  std::u16string pairs;
  for (int i = 0; i < 300000; ++i) pairs += u"#x#";
  start = std::chrono::steady_clock::now();
  Call("text", {host.Str(pairs), host.Int(10)});
  EXPECT_LT(SecondsSince(start), 1.0);
  EXPECT_EQ(gOffsetArray.nSize, 2 + 600000);
  End();
}

}  // namespace
