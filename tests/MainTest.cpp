// The natives as the translator script drives them: entry and session
// lifecycle, the callbacks' argument counts, label insertion, the merge
// driver, and the two text services' arguments and results.
#include <algorithm>
#include <random>
#include <string>
#include <tuple>

#include "FakeHost.h"
#include "FaultAllocator.h"
#include "Labels.h"
#include "Main.h"
#include "NativeScan.h"
#include "Session.h"
#include "Translation.h"

namespace {

class Session : public LibraryTest {};

TEST_F(Session, InitializeEmptiesAndKeepsStorageCleanupReleases) {
  ASSERT_EQ(host.Call("initialize", {}).ok, 1);
  IntArrayAdd(&gLabelArray, 7);
  gFromServerTitleInsideStart = 4;
  int32_t* storage = gLabelArray.pData;
  auto r = host.Call("initialize", {host.Int(1)});
  EXPECT_EQ(r.ok, 1);
  EXPECT_EQ(r.result, FakeHost::kUnset) << "initialize leaves the result alone";
  EXPECT_EQ(gLabelArray.nSize, 0);
  EXPECT_EQ(gLabelArray.pData, storage);
  EXPECT_EQ(gFromServerTitleInsideStart, -1);

  EXPECT_EQ(host.Call("cleanup", {}).ok, 1);
  EXPECT_EQ(gLabelArray.pData, nullptr);
  EXPECT_EQ(gEncodedAttrs.pData, nullptr);
  EXPECT_EQ(host.Call("cleanup", {}).ok, 1) << "a second cleanup finds nothing to release";
}

TEST_F(Session, CallbacksRefuseWrongArgumentCounts) {
  ASSERT_EQ(host.Call("initialize", {}).ok, 1);
  ASSERT_EQ(host.Call("beginPostTranslate", {}).ok, 1);
  auto r = host.Call("closeTagEnd", {host.Int(1), host.Int(2)});
  EXPECT_EQ(r.ok, 0);
  EXPECT_EQ(r.result, FakeHost::kUnset);
  r = host.Call("directive", {host.Str(u"<!--QZVX 1 -->")});
  EXPECT_EQ(r.ok, 0);
  for (const char* name : {"openTagBegin", "attribute", "openTagEnd", "closeTagBegin"})
    EXPECT_EQ(host.Call(name, {host.Int(1)}).ok, 0) << name;
  EXPECT_EQ(gFromServerTagEndArray.nSize, 0);
  EXPECT_EQ(gLabelArray.nSize, 0);
  // text answers true in the post pass whatever it is given.
  r = host.Call("text", {host.Int(1), host.Int(2), host.Int(3)});
  EXPECT_EQ(r.ok, 1);
  EXPECT_EQ(r.result, qzhost::kTrue);
}

// A host may refuse to convert any argument. The callbacks then skip what
// needs the text, still record offsets, and succeed; the pass ends, the
// merge and the services fail without the texts they cannot do without, and
// lock texts count as empty.
TEST_F(Session, ArgumentsTheHostRefuses) {
  const Value no = FakeHost::kRefused;
  auto ok = [&](const std::string& name, std::vector<Value> args) { return host.Call(name, std::move(args)).ok; };
  ASSERT_EQ(ok("initialize", {}), 1);
  EXPECT_EQ(ok("beginPreTranslate", {host.Str(u"<%"), host.Str(u"%>"), no, qzhost::kNull}), 0) << "a list";
  EXPECT_EQ(ok("endPreTranslate", {no}), 0);
  ASSERT_EQ(ok("beginPreTranslate", {no, host.Str(u"%>"), host.engine.Array({host.Str(u"zb"), no}), qzhost::kNull}), 1);
  EXPECT_EQ(gDirStartChars[0], 0) << "no start characters: no configured directive";
  EXPECT_EQ(gTagPrefixes.nSize, 3) << "zb, script, style";
  ScanThroughNatives(host, u"<zboutput>");
  const std::vector<std::pair<std::string, std::vector<Value>>> callbacks = {
      {"directive", {no, host.Int(10)}},        {"directive", {host.Str(u"<%a%>"), no}},
      {"openTagBegin", {no, host.Int(10)}},     {"attribute", {no, host.Str(u"v")}},
      {"attribute", {host.Str(u"n"), no}},      {"openTagEnd", {host.Int(12), no}},
      {"closeTagBegin", {no, host.Int(12)}},    {"closeTagEnd", {no}},
      {"text", {no, host.Int(12)}},             {"attribute", {no, no}},
      {"attribute", {host.Str(u"qzvx"), host.Int(4)}}, {"attribute", {host.Str(u"n"), no}},
      {"attribute", {host.Str(u"qzvx"), no}}};
  for (int pass : {1, 0}) {
    if (pass == 0) ok("beginPostTranslate", {});
    for (const auto& [name, args] : callbacks) {
      auto r = host.Call(name, args);
      EXPECT_TRUE(r.ok == 1 && r.result == qzhost::kTrue) << name << " in pass " << pass;
    }
    if (pass == 1) {
      EXPECT_EQ(gOffsetArray.nSize, 2) << "the zboutput tag's places only";
      EXPECT_EQ(ok("endPreTranslate", {no}), 0) << "no page";
    }
  }
  EXPECT_EQ(Items(gFromServerTagBeginArray), (Ints{10, 12}));
  EXPECT_EQ(Items(gFromServerTagEndArray), (Ints{12, 0}));
  EXPECT_EQ(gLabelArray.nSize + gAttrLabelArray.nSize, 0);
  EXPECT_EQ(std::u16string(gEncodedAttrs.pData, gEncodedAttrs.nSize), u"n=%22%22 ") << "a value it cannot read is empty";
  const auto all = host.table;
  host.ClearSlot(kSlotValueToInteger);
  ScanThroughNatives(host, u"<p qzvx=\"0\" >");
  EXPECT_EQ(gAttrLabelArray.nSize, 0) << "a label attribute whose number cannot be read";
  host.table = all;
  host.Install();

  ok("initialize", {});
  const Value page = host.Str(u"<%a%>"), output = host.Str(u"<!--QZVX 0 -->A<!--QZVX 1 -->");
  gOffsetArray.nSize = gOffsetTypeArray.nSize = 0;
  for (int32_t place : {0, 5}) IntArrayAdd(&gOffsetArray, place), IntArrayAdd(&gOffsetTypeArray, place ? 6 : 5);
  ok("beginPostTranslate", {});
  ScanThroughNatives(host, host.Text(output));
  auto merge = [&](std::vector<Value> args) {
    auto r = host.Call("endPostTranslate", args);
    return r.ok ? host.Text(r.result) : u"(failed)";
  };
  EXPECT_EQ(merge({no, output, no, no, no}), u"(failed)");
  EXPECT_EQ(merge({page, no, no, no, no}), u"(failed)");
  EXPECT_EQ(merge({page, output, no, no, no, qzhost::kTrue}), u"<qz:invisible><%a%></qz:invisible>" + Font(u"A"))
      << "empty lock texts";
  EXPECT_EQ(merge({page, output, no, no, no, no}), u"(failed)") << "a flag it cannot read";
  for (int k = 0; k < 2; ++k)
    EXPECT_EQ(ok("setLineEndingsToMatch", {k ? host.Str(u"\n") : no, k ? no : host.Str(u"\n")}), 0);
  for (int k = 0; k < 4; ++k) {
    std::vector<Value> args(4, host.Str(u"b"));
    args[k] = no;
    EXPECT_EQ(ok("replaceTextInsideTag", args), 0) << k;
  }
}

class LabelInsertion : public LibraryTest {
 protected:
  // Runs endPreTranslate over page with the given places.
  std::u16string Labelled(const std::u16string& page, Ints comments, Ints attrs, int* ok = nullptr) {
    EXPECT_EQ(host.Call("initialize", {}).ok, 1);
    for (int32_t o : comments) IntArrayAdd(&gOffsetArray, o);
    for (int32_t o : attrs) IntArrayAdd(&gAttrOffsetArray, o);
    auto r = host.Call("endPreTranslate", {host.Str(page)});
    if (ok) *ok = r.ok;
    return r.ok ? host.Text(r.result) : u"<failed>";
  }
};

TEST_F(LabelInsertion, WritesCommentsAndAttributesInPlaceOrder) {
  EXPECT_EQ(Labelled(u"<p>x</p>", {}, {}), u"<p>x</p>");
  EXPECT_EQ(Labelled(u"<x:a>t</x:a>", {0, 5, 6, 12}, {}),
            u"<!--QZVX 0 --><x:a><!--QZVX 1 -->t<!--QZVX 2 --></x:a><!--QZVX 3 -->");
  EXPECT_EQ(Labelled(u"<img src=\"a\">", {}, {4}), u"<img qzvx=\"0\"  src=\"a\">");
  EXPECT_EQ(Labelled(u"ab", {1, 1}, {1}), u"a qzvx=\"0\" <!--QZVX 0 --><!--QZVX 1 -->b")
      << "equal places: the attribute first, comments in index order";
  Ints many(11, 0);
  std::u16string out = Labelled(u"", many, {});
  EXPECT_EQ(out.substr(out.size() - 15), u"<!--QZVX 10 -->");
}

TEST_F(LabelInsertion, RefusesPlacesThatDoNotFitThePage) {
  int ok = 1;
  Labelled(u"abc", {2, 1}, {}, &ok);
  EXPECT_EQ(ok, 0) << "descending places";
  Labelled(u"abc", {1}, {2, 0}, &ok);
  EXPECT_EQ(ok, 0) << "a comment place lower than an attribute place already used";
  Labelled(u"abc", {4}, {}, &ok);
  EXPECT_EQ(ok, 0) << "a place beyond the page's end";
  EXPECT_EQ(Labelled(u"abc", {3}, {}), u"abc<!--QZVX 0 -->");
}

// Allocation failures are swept through whole translations (MergeDriver).
TEST_F(LabelInsertion, ASecondCallMakesTheSamePageWrongCountsAndNoStringToValueFail) {
  std::u16string first = Labelled(u"<p>a</p>", {3, 4}, {});
  auto r = host.Call("endPreTranslate", {host.Str(u"<p>a</p>")});
  EXPECT_EQ(host.Text(r.result), first);
  r = host.Call("endPreTranslate", {});
  EXPECT_EQ(r.ok, 0);
  EXPECT_EQ(r.result, FakeHost::kUnset);
  host.ClearSlot(kSlotStringToValue);
  EXPECT_EQ(host.Call("endPreTranslate", {host.Str(u"<p>a</p>")}).ok, 0);
}

// 5 555 556 PHP directives "<??>" and some text: 22 MB of page whose last
// labels have 8 digits. Too big for the ordinary run; run it with
//   build/tests/MainTest --gtest_also_run_disabled_tests --gtest_filter='*TwentyTwo*'
TEST_F(LabelInsertion, DISABLED_TwentyTwoMegabytePageOfDirectives) {
  const int32_t nDirectives = 5555556;
  std::u16string page;
  page.reserve(4 * nDirectives + 4);
  for (int32_t k = 0; k < nDirectives; ++k) page += u"<?\?>";
  page += u"text";
  ASSERT_EQ(host.Call("initialize", {}).ok, 1);
  ASSERT_EQ(host.Call("beginPreTranslate", {host.Str(u"<?"), host.Str(u"?>"), qzhost::kNull, qzhost::kNull}).ok, 1);
  ScanThroughNatives(host, page);
  ASSERT_EQ(gOffsetArray.nSize, 2 * nDirectives);
  auto r = host.Call("endPreTranslate", {host.Str(page)});
  ASSERT_EQ(r.ok, 1);
  const std::u16string labelled = host.Text(r.result);
  const std::u16string tail = u"<!--QZVX 11111110 --><?\?><!--QZVX 11111111 -->text";
  EXPECT_EQ(labelled.substr(labelled.size() - tail.size()), tail);
  EXPECT_EQ(labelled.substr(0, 32), u"<!--QZVX 0 --><?\?><!--QZVX 1 -->");
  EXPECT_LT(static_cast<int64_t>(labelled.size()), LabelledPageSize(page.size(), 2 * nDirectives, 0));
}

using MergeDriver = TranslationTest;

// The road of one directive.
TEST_F(MergeDriver, TheRoadOfOneDirective) {
  const std::u16string page = u"<p><%= name %></p>";
  EXPECT_EQ(Label(page), u"<p><!--QZVX 0 --><%= name %><!--QZVX 1 --></p>");
  const std::u16string output = u"<p><!--QZVX 0 -->Bob<!--QZVX 1 --></p>";
  ASSERT_EQ(Call("beginPostTranslate", {}).ok, 1);
  ScanThroughNatives(host, output);
  EXPECT_EQ(End(page, output),
            u"<p><qz:lock code=\"%3C%25=%20name%20%25%3E\"><qz:invisible><%= name %></qz:invisible>"
            u"<font hilitecolor=\"Dyn Up-to-Date Color\">Bob</font></qz:lock></p>");
}

TEST_F(MergeDriver, InputNothingShouldStopTheProcessOn) {
  // Label comments whose numbers name no label place, typed into the page
  // or made up by the server, are the author's comments: they stay.
  std::u16string page = u"<p><!--QZVX 7 -->x<!--QZVX -1 --><%=1%></p>";
  EXPECT_EQ(Translate(page), page);
  EXPECT_EQ(Translate(u"<p><%=1%></p>", {{u"<p>", u"<p><!--QZVX 99 -->"}}), u"<p><!--QZVX 99 --><%=1%></p>");

  // A label attribute that the server moved, or whose tag never ends, fails
  // the merge; one that lost its blank ends at the tag's end; one whose
  // number names no attribute place is cut, and the tag keeps the server's
  // attributes.
  page = u"<img src=\"a\">";
  EXPECT_EQ(Translate(page, {{u" qzvx=\"0\"  src=\"a\"", u" src=\"a\" qzvx=\"0\" "}}), kFailed);
  EXPECT_EQ(Translate(page, Answer(u"<img qzvx=\"0\"<p>"), u"<img qzvx=\"0\">"), kFailed);
  EXPECT_EQ(Translate(page, Answer(u"<img qzvx=\"0\""), u"<img qzvx=\"0\">"), kFailed) << "nor does its text";
  EXPECT_EQ(Translate(page, {{u"  src=\"a\"", u""}}), u"<img src=\"a\"" + TagAttr(u"") + u">");
  EXPECT_EQ(Translate(u"<br a=\"b\"/>", {{u"  a=\"b\"", u""}}), u"<br a=\"b\"/" + TagAttr(u"") + u"/>");
  EXPECT_EQ(Translate(page, {{u"qzvx=\"0\"  src=\"a\"", u"qzvx=\"9\"  src=\"b\""}}), u"<img src=\"b\">");

  // A page text other than the one labelled: a name scan that reaches the
  // text's end is locked; label places past the end fail the merge.
  const Pairs bothLabels = Answer(u"<!--QZVX 0 --><!--QZVX 1 -->");
  EXPECT_EQ(Translate(u"<x:a/>", bothLabels, {}, u"<x:abc"), Lock(u"<x:abc", u"", false));
  EXPECT_EQ(Translate(u"<x:a/>", bothLabels, {}, u"<x"), kFailed);

  // A title open tag with attributes still keeps its content unmarked; a
  // close tag right after a piece stays outside the lock, once.
  EXPECT_EQ(Translate(u"<title lang=\"en\"><%= t %></title>", {{u"<%= t %>", u"Home"}}),
            u"<title lang=\"en\">" + Lock(u"<%= t %>", u"Home") + u"</title>");
  EXPECT_EQ(Translate(u"<%= open %></b>", {{u"<%= open %>", u"<b>x"}}),
            Lock(u"<%= open %>", u"<b" + kHilite + u">" + Font(u"x")) + u"</b>");
  lockBegin_ = u"<l c=\"%s\" n=\"%d\">";
  EXPECT_EQ(Translate(u"<%a%>", {{u"<%a%>", u"A"}}), kFailed) << "a lock format that asks for more than one text";
  EXPECT_EQ(Translate(u"<p><%a%></p>"), u"<p><%a%></p>") << "a page that needs no lock merges whatever the lock format";
}

TEST_F(MergeDriver, ArgumentsAndHostOperations) {
  const std::u16string page = u"<%a%>", output = u"<!--QZVX 0 -->A<!--QZVX 1 -->";
  const std::vector<Value> args = {host.Str(page), host.Str(output), host.Str(kLockBegin), host.Str(kLockEnd),
                                   host.Str(kValue), qzhost::kFalse,  qzhost::kFalse};
  // Wrong argument counts, checked before anything is done, and hosts
  // without an operation the merge needs.
  const auto all = host.table;
  const std::pair<size_t, int> cases[] = {{0, -1}, {4, -1}, {7, -1}, {5, kSlotStringToValue},
                                          {5, kSlotValueToString}, {6, kSlotValueToBoolean}};
  for (auto [nArgs, slot] : cases) {
    Label(page);
    Call("beginPostTranslate", {});
    ScanThroughNatives(host, output);
    if (slot >= 0) host.ClearSlot(slot);
    auto r = host.Call("endPostTranslate", std::vector<Value>(args.begin(), args.begin() + nArgs));
    EXPECT_EQ(r.ok, 0) << nArgs << " arguments, slot " << slot;
    EXPECT_EQ(r.result, FakeHost::kUnset);
    if (slot < 0) {
      EXPECT_EQ(Items(gFromServerOffsetArray), (Ints{0, 15})) << "the labels were not removed";
    }
    host.table = all;
    host.Install();
  }
}

// Translations whose recorded offsets, label numbers and counts are then
// disturbed as a broken or hostile host could leave them: anywhere, out of
// order, entries missing. The merge may fail, but must never read outside
// its texts (the sanitizer build checks) nor stop the process.
TEST_F(MergeDriver, ForgedReportsNeverReadOutsideTheTexts) {
  // The first twelve make pages; all of them are inserted into outputs.
  const std::u16string pieces[] = {u"<%a%>", u"<b>", u"</b>", u"<img src=\"a\">", u"<x:a/>", u"<x:b>", u"</x:b>", u"t",
                                   u" ", u"<title>", u"</title>", u"<br x=\"1\" />", u"<i>", u"</i>", u"<", u">",
                                   u"<!--QZVX 1 -->", u"<p qzvx=\"0\" >"};
  IntArray* arrays[] = {&gOffsetArray, &gOffsetTypeArray, &gAttrOffsetArray, &gAttrLengthArray, &gFromServerOffsetArray,
                        &gFromServerLengthArray, &gLabelArray, &gAttrFromServerOffsetArray, &gAttrFromServerLengthArray,
                        &gAttrLabelArray, &gFromServerTagBeginArray, &gFromServerTagEndArray};
  std::mt19937 random(11);
  auto below = [&](size_t n) { return static_cast<int32_t>(random() % n); };
  int nMerged = 0;
  for (int round = 0; round < 1500; ++round) {
    std::u16string page;
    for (int n = 1 + below(10); n > 0; --n) page += pieces[below(12)];
    std::u16string output = Label(page);
    for (int n = below(4); n > 0; --n) {
      size_t at = below(output.size() + 1);
      below(2) ? output.insert(at, pieces[below(std::size(pieces))]) : output.erase(at, below(16));
    }
    Call("beginPostTranslate", {});
    ScanThroughNatives(host, output);
    for (int n = below(4); n > 0; --n) {
      IntArray* a = arrays[below(std::size(arrays))];
      if (a->nSize > 0 && below(4) == 0) --a->nSize;
      else if (a->nSize > 0) a->pData[below(a->nSize)] = below(std::max(page.size(), output.size()) + 8) - 3;
    }
    if (below(8) == 0) gFromServerTitleInsideStart = below(6) - 1;
    if (below(8) == 0 && gEncodedAttrs.nSize > 0) gEncodedAttrs.pData[below(gEncodedAttrs.nSize)] = u'x';
    lockEmpty_ = below(2);
    nMerged += End(page, output) != kFailed;
    Call("cleanup", {});
  }
  EXPECT_GT(nMerged, 500) << "most rounds reach the end of the merge";
}

// Server output of the shapes that would make a careless merge quadratic
// (their speed is the benchmark's business): merged whole and exact.
TEST_F(MergeDriver, HostileServerOutputMergesWhole) {
  auto merged = [&](const std::u16string& page, const Pairs& server) {
    std::u16string output = Serve(Label(page), server);
    Call("beginPostTranslate", {});
    ScanThroughNatives(host, output);
    return End(page, output);
  };
  std::u16string unclosed, marked, open, close, pieces, locks, repeated;
  for (int i = 0; i < 1000; ++i) {
    unclosed += u"<b>x", marked += u"<b" + kHilite + u">" + Font(u"x");
    open += u"<div>", close += u"</div>", pieces += u"<%=1%>", repeated += u"<!--QZVX 0 -->r";
    locks += Lock(u"<%=1%>", u"<i" + kHilite + u">" + Font(u"v"));
  }
  EXPECT_TRUE(merged(u"<%=x%>", {{u"<%=x%>", unclosed}}) == Lock(u"<%=x%>", marked)) << "tags that never close";
  EXPECT_TRUE(merged(u"<%=x%>", {{u"<%=x%>", open + close}}) ==
              Lock(u"<%=x%>", u"<div" + kHilite + (open + close).substr(4)))
      << "nested elements of one name";
  EXPECT_TRUE(merged(pieces, {{u"<%=1%>", u"<i>v"}}) == locks) << "pieces, each with a tag";
  EXPECT_TRUE(merged(u"<%=1%>", {{u"<!--QZVX 0 -->", repeated}}) ==
              u"<qz:lock code=\"\">" + Font(std::u16string(999, u'r')) + kLockEnd + Lock(u"<%=1%>", Font(u"r<%=1%>")))
      << "one start label repeated: the first piece runs to the last repeat";
}

class TextServices : public LibraryTest {
 protected:
  std::u16string Match(const std::u16string& model, const std::u16string& text) {
    auto r = host.Call("setLineEndingsToMatch", {host.Str(model), host.Str(text)});
    EXPECT_EQ(r.ok, 1);
    return host.Text(r.result);
  }
  std::u16string Replace(const std::u16string& text, const std::u16string& tag, const std::u16string& search,
                         const std::u16string& replacement) {
    auto r = host.Call("replaceTextInsideTag",
                       {host.Str(text), host.Str(tag), host.Str(search), host.Str(replacement)});
    EXPECT_EQ(r.ok, 1);
    return host.Text(r.result);
  }
};

TEST_F(TextServices, LineEndingsFollowTheModelsFirstEnding) {
  // The endings themselves are the text utility's (UtilityTest); here the
  // native's own part: its texts, its result value and its failures.
  EXPECT_EQ(Match(u"a\r\nb", u"x\ny\nz"), u"x\r\ny\r\nz");
  Value text = host.Str(u"x\ny");
  for (Value model : {host.Str(u"plain"), host.Str(u"a\nb")}) {
    auto r = host.Call("setLineEndingsToMatch", {model, text});
    EXPECT_EQ(r.result, text) << "the script's own value comes back";
  }
  EXPECT_EQ(host.Call("setLineEndingsToMatch", {text}).ok, 0);
  FaultFailAt(1);
  EXPECT_EQ(host.Call("setLineEndingsToMatch", {host.Str(u"\r\n"), text}).ok, 0);
}

TEST_F(TextServices, ReplacementTakesTheHostsLengths) {
  using namespace std::string_literals;
  EXPECT_EQ(Replace(u"<>", u"\0"s, u">", u"a"), u"<>") << "the tag name is one NUL unit, not empty";
  EXPECT_EQ(Replace(u"<xy", u"", u"x\0"s, u"a"), u"<xy") << "the search text's NUL must match too";
  EXPECT_EQ(Replace(u"<xa", u"", u"x", u"\0"s), u"<") << "the result ends at the replacement's NUL";
}

TEST_F(TextServices, FailWithoutTheirOperations) {
  auto r = host.Call("replaceTextInsideTag", {host.Str(u"a"), host.Str(u"b"), host.Str(u"c")});
  EXPECT_EQ(r.ok, 0);
  FaultFailAt(1);
  EXPECT_EQ(host.Call("replaceTextInsideTag", {host.Str(u"a"), host.Str(u"b"), host.Str(u"c"), host.Str(u"d")}).ok, 0);
  FaultFailAt(0);
  host.ClearSlot(kSlotStringToValue);
  EXPECT_EQ(host.Call("replaceTextInsideTag", {host.Str(u"a"), host.Str(u"b"), host.Str(u"c"), host.Str(u"d")}).ok, 0);
  EXPECT_EQ(host.Call("setLineEndingsToMatch", {host.Str(u"\r\n"), host.Str(u"\n")}).ok, 0);
  host.ClearSlot(kSlotValueToString);
  EXPECT_EQ(host.Call("setLineEndingsToMatch", {host.Str(u"\r\n"), host.Str(u"\n")}).ok, 0);
}

}  // namespace
