// The pre pass: settings, directives, text runs and the open-tag handlers,
// driven through the natives as the host's scanner drives them.
#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "FakeHost.h"
#include "FaultAllocator.h"
#include "Main.h"
#include "Memory.h"
#include "NativeScan.h"
#include "Pre.h"
#include "Session.h"

namespace {

using Places = std::vector<std::pair<int32_t, int32_t>>;
using Texts = std::vector<std::u16string>;

Texts Strings(const StringArray& a) { return Texts(a.pData, a.pData + a.nSize); }

Places Pairs(const IntArray& a, const IntArray& b) {
  Places out;
  for (int32_t i = 0; i < a.nSize; ++i) out.emplace_back(a.pData[i], b.pData[i]);
  return out;
}
Places LabelPlaces() { return Pairs(gOffsetArray, gOffsetTypeArray); }
Places AttrPlaces() { return Pairs(gAttrOffsetArray, gAttrLengthArray); }

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
  void End() { host.Call("endPreTranslate", {host.Str(u"")}); }
  void Call(const std::string& name, std::vector<Value> args) {
    EXPECT_EQ(host.Call(name, std::move(args)).ok, 1) << name;
  }

  void Scan(const std::u16string& page, int32_t base = 0) { ScanThroughNatives(host, page, base); }
  // Places of one directive or text event on its own.
  Places Recorded(const char* event, const std::u16string& text, int offset) {
    gOffsetArray.nSize = gOffsetTypeArray.nSize = 0;
    Call(event, {host.Str(text), host.Int(offset)});
    return LabelPlaces();
  }
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
                   host.engine.Array({host.Int(7), host.Str(u"pre")}), host.StrArray({u"runat"}),
                   host.StrArray({u"server"}), host.IntArray({1})}),
            1);
  EXPECT_EQ(Strings(gTagPrefixes), (Texts{u"script", u"asp:", u"script", u"style"})) << "script twice";
  EXPECT_EQ(Strings(gTagsContainingNonHtml), (Texts{u"7", u"pre", u"script", u"style"})) << "a number as its text";
  End();
  EXPECT_TRUE(gDirStartChars == nullptr && gTagPrefixes.pData == nullptr) << "released at the end";
  EXPECT_EQ(gAttrsForServerTags.nSize, 1) << "rule lists outlive the pass";
  // The short form empties the rule lists an earlier full form filled.
  ASSERT_EQ(Begin({host.Str(u""), host.Str(u""), qzhost::kNull, qzhost::kNull}), 1);
  EXPECT_EQ(gAttrsForServerTags.nSize + gAttrValuesForServerTags.nSize + gAttrsDenoteNonHtmlTags.nSize, 0);
  EXPECT_EQ(std::u16string(gDirEndChars), u"") << "an empty text, not a missing one";
  EXPECT_EQ(Strings(gTagPrefixes), (Texts{u"script", u"style"})) << "null list";
}

TEST_F(PrePass, WrongCountsAndUnreadableListsFail) {
  for (size_t argc : {0u, 3u, 5u, 6u, 8u}) {
    EXPECT_EQ(Begin(std::vector<Value>(argc, qzhost::kNull)), 0) << argc;
    EXPECT_EQ(gDirStartChars, nullptr) << "no directive text for a wrong count";
    EXPECT_NE(gOpenTagIsNonHtmlServerTag.pData, nullptr) << "the nine lists are made";
    End();
  }
  // Lists that are not arrays, wherever they stand.
  for (int index : {2, 3, 4, 5, 6}) {
    std::vector<Value> args = {host.Str(u"<%"), host.Str(u"%>"), qzhost::kNull, qzhost::kNull,
                               qzhost::kNull, qzhost::kNull, qzhost::kNull};
    args[index] = index == 6 ? host.Int(1) : host.Str(u"x");
    EXPECT_EQ(Begin(args), 0) << index;
    End();
  }
}

TEST_F(PrePass, MissingHostOperations) {
  std::vector<Value> args = {host.Str(u"<%"), host.Str(u"%>"), host.StrArray({u"a:", u"b:"}), qzhost::kNull};
  const auto all = host.table;
  // Without array length nothing is read, yet the call succeeds; without a
  // class name or object conversion the lists cannot be trusted.
  for (int slot : {kSlotArrayLength, kSlotClassName, kSlotValueToObject}) {
    host.ClearSlot(slot);
    EXPECT_EQ(Begin(args), slot == kSlotArrayLength ? 1 : 0) << slot;
    EXPECT_EQ(gTagPrefixes.nSize, slot == kSlotArrayLength ? 2 : 0) << slot;
    End();
    host.table = all;
  }
  // Without value to string the pass opens with empty directive texts and
  // skips the elements; a second begin is still refused until the end.
  host.ClearSlot(kSlotValueToString);
  EXPECT_EQ(Begin(args), 1);
  ASSERT_NE(gDirStartChars, nullptr);
  EXPECT_EQ(gDirStartChars[0], 0);
  EXPECT_EQ(Strings(gTagPrefixes), (Texts{u"script", u"style"}));
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
  std::vector<Value> args(7, qzhost::kNull);
  args[2] = host.StrArray({u"a:", u"b:", u"c:"});
  args[6] = host.engine.Array({host.Str(u"9"), host.Int(5), host.Int(6), host.Str(u"9"), host.Int(0)});
  ASSERT_EQ(Begin(args), 1);
  EXPECT_EQ(Strings(gTagPrefixes), (Texts{u"a:", u"c:", u"script", u"style"}));
  EXPECT_EQ(Items(gAttrsDenoteNonHtmlTags), (Ints{0, 6, 6, 0}));
}

TEST_F(PrePass, ASecondBeginWithoutEndIsRefusedAndLeavesThePassAlone) {
  BeginWith({u"x:"});
  Scan(u"<x:a><p>");
  char16_t* start = gDirStartChars;
  std::vector<Value> other = {host.Str(u"<?"), host.Str(u"?>"), host.StrArray({u"y:"}), qzhost::kNull};
  EXPECT_EQ(Begin(other), 0);
  EXPECT_EQ(gDirStartChars, start);
  EXPECT_EQ(Strings(gTagPrefixes), (Texts{u"x:", u"script", u"style"}));
  EXPECT_EQ(Strings(gOpenTags), (Texts{u"x:a", u"p"}));
  End();
  EXPECT_EQ(Begin(other), 1);
  EXPECT_EQ(gOpenTags.nSize, 0);
}

// Every allocation of a full-form begin, failed in turn: the nine list
// creations and the two directive texts fail the call; any later one only
// loses one of the 13 list entries. Nothing leaks, and the pass can always be
// ended and begun again.
TEST_F(PrePass, AllocationFailuresInBeginFailOrLoseOneEntry) {
  std::vector<Value> args = {host.Str(u"<%"), host.Str(u"%>"), host.StrArray({u"x:", u"y:"}), host.StrArray({u"pre"}),
                             host.StrArray({u"runat", u"id"}), host.StrArray({u"server", u"main"}), host.IntArray({1, 0})};
  auto entries = [] {
    return gTagPrefixes.nSize + gTagsContainingNonHtml.nSize + gAttrsForServerTags.nSize +
           gAttrValuesForServerTags.nSize + gAttrsDenoteNonHtmlTags.nSize;
  };
  for (long k = 1;; ++k) {
    ReleaseLibraryState();
    ASSERT_EQ(FaultOutstanding(), 0) << k;
    ASSERT_EQ(host.Call("initialize", {}).ok, 1);
    FaultFailAt(k);
    int ok = Begin(args);
    bool bFailed = FaultAttempts() >= k;
    FaultFailAt(0);
    EXPECT_EQ(ok, k <= 11 && bFailed ? 0 : 1) << "allocation " << k;
    if (ok) {
      EXPECT_EQ(entries(), bFailed ? 12 : 13) << "allocation " << k;
    }
    if (!bFailed) break;
    End();
    EXPECT_EQ(Begin(args), 1) << "after allocation " << k;
    End();
  }
}

// ---------------------------------------------------------------------------
// Directives

TEST_F(PrePass, TaglibDeclarationsInEverySpelling) {
  BeginWith({});
  const std::u16string kDirectives[] = {
      u"<%@ taglib prefix=\"x\" uri=\"u\" %>", u"<%@ taglib prefix='x' uri=\"u\" %>",
      u"<%@ taglib prefix=x uri=\"u\" %>", u"<%@ taglib PREFIX = \"y\" %>", u"<%@TagLib prefix=z%>",
      u"<%@ taglib prefix=\" %>",                     // one quote
      u"<%@ taglib uri=\"prefix\" PREFIX=\"w\" %>",  // the first "prefix" has no "=" after it
      u"<%@ taglibs prefix=\"v\" %>", u"<% @taglib prefix=\"v\" %>", u"<%@ taglib %>",
      u"<%@ taglib prefix=" + std::u16string(130, u'q') + u" %>"};
  for (const std::u16string& directive : kDirectives) Call("directive", {host.Str(directive), host.Int(0)});
  EXPECT_EQ(Strings(gTagPrefixes), (Texts{u"script", u"style", u"x:", u"x:", u"x:", u"y:", u"z:", u":",
                                          std::u16string(120, u'q') + u":"}));
  End();
  // The declared prefix makes server tags from then on, also when it was
  // declared inside non-HTML content, which itself gets no places.
  ASSERT_EQ(Begin({host.Str(u"<%"), host.Str(u"%>"), host.StrArray({u"y:"}), host.StrArray({u"y:code"})}), 1);
  EXPECT_EQ(PlacesOf(u"<x:a></x:a><y:code><%@ taglib prefix=\"x\" %></y:code><x:a/>"),
            (Places{{11, 1}, {52, 6}, {52, 1}, {58, 6}}));
  End();
}

TEST_F(PrePass, ConfiguredDirectivesAndIncludes) {
  auto recorded = [&](const std::u16string& text) { return Recorded("directive", text, 40); };
  ASSERT_EQ(Begin({host.Str(u"<?"), host.Str(u"?>"), qzhost::kNull, qzhost::kNull}), 1);
  EXPECT_EQ(recorded(u"<? a ?>"), (Places{{40, 5}, {47, 6}}));
  EXPECT_EQ(recorded(u"?> x <?"), (Places{{40, 5}, {47, 6}})) << "end characters first";
  EXPECT_EQ(recorded(u"<?>"), Places{}) << "the two lengths exceed the directive's";
  EXPECT_EQ(recorded(u"<?>>"), (Places{{40, 5}, {44, 6}})) << "characters may overlap";
  EXPECT_EQ(recorded(u"<% a %>"), Places{});
  EXPECT_EQ(recorded(u"<!-- #INCLUDE file=\"a\" -->"), (Places{{40, 5}, {66, 6}}));
  EXPECT_EQ(recorded(u"<!--#Include-->"), (Places{{40, 5}, {55, 6}}));
  EXPECT_EQ(recorded(u"<!-- #iNclude -->"), Places{});
  End();
  ASSERT_EQ(Begin({host.Str(u""), host.Str(u"?>"), qzhost::kNull, qzhost::kNull}), 1);
  EXPECT_EQ(recorded(u"<? a ?>"), Places{}) << "no start characters: only includes count";
  EXPECT_EQ(recorded(u"<!-- #include virtual=\"a\" -->"), (Places{{40, 5}, {69, 6}}));
  End();
  BeginWith({});
  EXPECT_EQ(PlacesOf(u"<style><% a %><!-- #include --></style>"), (Places{{0, 1}, {39, 6}}))
      << "nothing inside non-HTML content";
}

// ---------------------------------------------------------------------------
// Text runs

TEST_F(PrePass, ExpressionsInZboutputBlocks) {
  BeginWith({u"zb"});
  Scan(u"<zboutput>");
  auto recorded = [&](const std::u16string& text, int offset) { return Recorded("text", text, offset); };
  EXPECT_EQ(recorded(u"a #x# b", 100), (Places{{102, 3}, {105, 6}}));
  EXPECT_EQ(recorded(u"#a# #b", 0), (Places{{0, 5}, {6, 6}})) << "a later unpaired # drops the pairs";
  EXPECT_EQ(recorded(u"#b", 0), Places{}) << "an unpaired # at index 0";
  auto r = host.Call("text", {host.Str(u"#x#")});
  EXPECT_EQ(std::pair(r.ok, r.result), std::pair(0, qzhost::kTrue)) << "a wrong count fails inside a block";
  EXPECT_EQ(LabelPlaces(), Places{});
  Call("text", {host.Str(u"#x#"), host.Int(INT64_MAX)});
  EXPECT_EQ(LabelPlaces(), (Places{{-1, 3}, {2, 6}})) << "only the offset's low 32 bits count";
  const auto all = host.table;
  host.ClearSlot(kSlotValueToString);
  EXPECT_EQ(recorded(u"#x#", 0), Places{}) << "a host that cannot convert the text: nothing, no failure";
  host.table = all;
  host.Install();
  Scan(u"</zboutput>");
  EXPECT_EQ(host.Call("text", {host.Str(u"#x#")}).ok, 1) << "outside a block the count is not looked at";
  EXPECT_EQ(recorded(u"#x#", 0), Places{}) << "outside every block";
  Scan(u"<zboutput>");
  Call("openTagBegin", {host.Str(u"script"), host.Int(20)});
  EXPECT_EQ(recorded(u"#x#", 0), Places{}) << "inside non-HTML content";
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
  Scan(u"<X:A><x:a><p></x:A>");
  EXPECT_EQ(Strings(gOpenTags), (Texts{u"img", u"X:A"})) << "the innermost of equal names, ignoring case, closes";
}

TEST_F(PrePass, AttributeRules) {
  auto beginWithRules = [&](const Texts& names, const Texts& values, const std::vector<int64_t>& flags) {
    ASSERT_EQ(Begin({host.Str(u"<%"), host.Str(u"%>"), host.StrArray({u"x:"}), qzhost::kNull, host.StrArray(names),
                     host.StrArray(values), host.IntArray(flags)}),
              1);
  };
  beginWithRules({u"runat", u"id", u"runat"}, {u"server", u"main", u"SERVER"}, {1, 1, 1});
  EXPECT_EQ(PlacesOf(u"<div runat=\"server\"><x:a/><img src=a></div>"), (Places{{0, 1}, {43, 6}}));
  EXPECT_EQ(AttrPlaces(), Places{}) << "nothing inside non-HTML content";
  EXPECT_EQ(PlacesOf(u"<form runat=\"server\"><x:a/></form>"),
            (Places{{0, 1}, {21, 6}, {21, 1}, {27, 6}, {27, 2}, {34, 6}}));
  EXPECT_EQ(PlacesOf(u"<p ID=\"MAIN\"><x:a/></p>"), (Places{{0, 1}, {13, 6}, {13, 1}, {19, 6}, {19, 2}, {23, 6}}))
      << "a rule other than runat keeps the content HTML";
  EXPECT_EQ(PlacesOf(u"<x:a id=\"main\"/><x:b/>"), (Places{{0, 1}, {16, 6}, {16, 1}, {22, 6}}))
      << "already a server tag: no second code 1";
  End();
  // Rule lists of unequal length are read as far as the shortest; a missing
  // flag counts as 0.
  beginWithRules({u"runat", u"id"}, {u"server"}, {});
  EXPECT_EQ(PlacesOf(u"<p id=\"server\"></p>"), Places{});
  EXPECT_EQ(PlacesOf(u"<div runat=server><x:a/></div>"),
            (Places{{0, 1}, {18, 6}, {18, 1}, {24, 6}, {24, 2}, {30, 6}}));
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
}

// Events the scanner should not send, or sends after the pass has ended,
// change nothing they have no entry for and never crash.
TEST_F(PrePass, StrayEventsAreIgnored) {
  BeginWith({u"x:"});
  gbHasAttrs = 0;
  EXPECT_EQ(PreAttributeVX(u"a", u"b") + PreOpenTagEnd(5, u"/") + PreCloseTagEnd(5), 3);
  EXPECT_EQ(gbHasAttrs, 0);
  Scan(u"<x:a><p>");
  Call("closeTagEnd", {host.Int(20)});
  Call("attribute", {host.Str(u"a"), host.Str(u"b")});
  Call("openTagEnd", {host.Int(21), host.Str(u"/")});
  EXPECT_EQ(Strings(gOpenTags), (Texts{u"x:a", u"p"}));
  EXPECT_EQ(LabelPlaces(), (Places{{0, 1}, {5, 6}}));
  EXPECT_EQ(AttrPlaces(), Places{});
  End();
  Scan(u"</P><x:a/><b></X:a>", 30);
  EXPECT_EQ(Strings(gOpenTags), Texts{}) << "still in the pre mode after the end, the stack goes on";
}

// A pass without a session (no initialize) records nothing; after its end
// the mode stays pre, with no settings left: no prefix, no directive.
TEST_F(PrePass, EventsOutsideTheSessionOrThePass) {
  host.Call("cleanup", {});
  BeginWith({u"x:"});
  Scan(u"<x:a><%b%><img src=\"a\"></x:a>");
  EXPECT_EQ(gOffsetArray.pData, nullptr);
  EXPECT_EQ(gAttrOffsetArray.pData, nullptr);
  End();
  ASSERT_EQ(host.Call("initialize", {}).ok, 1);
  Scan(u"<%@ taglib prefix=\"q\" %><%b%><q:a/>");
  EXPECT_EQ(LabelPlaces(), Places{});
}

TEST_F(PrePass, EdgesOfSettingsAndMarkup) {
  // Without the element operation no entry is read; directive characters
  // end at a NUL; empty start characters configure no directive.
  const auto all = host.table;
  host.ClearSlot(kSlotArrayElement);
  using namespace std::string_literals;
  ASSERT_EQ(Begin({host.Str(u"<\0x"s), host.Str(u"%>"), host.StrArray({u"x:"}), qzhost::kNull}), 1);
  EXPECT_EQ(std::u16string(gDirStartChars), u"<");
  EXPECT_EQ(Strings(gTagPrefixes), (Texts{u"script", u"style"}));
  End();
  host.table = all;
  host.Install();
  ASSERT_EQ(Begin({host.Str(u""), host.Str(u"%>"), host.StrArray({u"x:", u"zb"}), host.StrArray({u"x:code"}),
                   host.StrArray({u"runat", u"id"}), host.StrArray({u"client", u"main"}), host.IntArray({1, 1})}),
            1);
  EXPECT_EQ(Recorded("directive", u"<%a%>", 0), Places{});
  End();
  BeginWith({u"x:", u"zb"});
  EXPECT_EQ(Recorded("directive", u"<%a", 0), Places{}) << "start characters without end characters";
  EXPECT_EQ(Recorded("directive", u"<%@", 0), Places{}) << "a taglib directive cut short";
  End();
  ASSERT_EQ(Begin({host.Str(u"<%"), host.Str(u"%>"), host.StrArray({u"x:", u"zb"}), host.StrArray({u"x:code"}),
                   host.StrArray({u"runat"}), host.StrArray({u"client"}), host.IntArray({1})}),
            1);
  EXPECT_EQ(PlacesOf(u"<div runat=\"client\"><b>x</b></div>"), (Places{{0, 1}, {20, 6}, {28, 2}, {34, 6}}))
      << "a runat rule whose value is not server keeps the content HTML";
  EXPECT_EQ(PlacesOf(u"<x:code><x:b></x:b></x:code>"), (Places{{0, 1}, {28, 6}}))
      << "server tags inside non-HTML content record nothing";
  EXPECT_EQ(PlacesOf(u"<zboutput><zboutput>#a#</zboutput></zboutput>").size(), 10u) << "nested blocks do not collapse";
  EXPECT_EQ(PlacesOf(u"<zboutput>x #a</zboutput>"), (Places{{0, 1}, {10, 6}, {10, 5}, {14, 6}, {14, 2}, {25, 6}}))
      << "an unpaired # after the first unit labels the run";
  End();
}

}  // namespace
