// The open-tag replay: a scanner sink that keeps the stack the library
// keeps, and notes each server element popped early or left open.
//
// Rules local to this file: names compare ignoring ASCII case, as the
// library compares them. A close tag finds its open tag through an index of
// the stack by name, and the prefix test looks up each prefix length once,
// so hostile pages (thousands of open tags, thousands of declared prefixes)
// stay linear: every entry links to the one of its name under it, and the
// innermost entry of each name is kept by name.
#include "TagReplay.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <unordered_map>
#include <unordered_set>

#include "PageEnd.h"
#include "Scanner.h"
#include "Utf8.h"

namespace qzhost {
namespace {

std::u16string Folded(std::u16string_view name) {
  std::u16string folded(name);
  for (char16_t& u : folded)
    if (u >= u'A' && u <= u'Z') u = static_cast<char16_t>(u + 32);
  return folded;
}

// Hashing that lets sets and maps of names be asked with views.
struct NameHash {
  using is_transparent = void;
  size_t operator()(std::u16string_view name) const { return std::hash<std::u16string_view>{}(name); }
};
using NameSet = std::unordered_set<std::u16string, NameHash, std::equal_to<>>;

bool BeginsFolded(std::u16string_view text, std::u16string_view lowerPrefix) {
  return text.size() >= lowerPrefix.size() && Folded(text.substr(0, lowerPrefix.size())) == lowerPrefix;
}

// How far the library reads a taglib directive's word and prefix value.
constexpr size_t kTaglibUnits = 120;

// The prefix a taglib directive declares, ":" appended, as the library
// reads it: "<%@", a word that is "taglib", then the value after the first
// "prefix" (or, without one, "PREFIX"), quotes dropped. Empty for none.
std::u16string TaglibPrefix(std::u16string_view text) {
  if (!text.starts_with(u"<%@")) return u"";
  size_t at = 3;
  while (at < text.size() && IsScanSpace(text[at])) ++at;
  size_t word = at;
  while (at < text.size() && at - word < kTaglibUnits && !IsScanSpace(text[at])) ++at;
  if (Folded(text.substr(word, at - word)) != u"taglib") return u"";
  size_t found = text.find(u"prefix");
  if (found == std::u16string_view::npos) found = text.find(u"PREFIX");
  if (found == std::u16string_view::npos) return u"";
  at = found + 6;
  while (at < text.size() && IsScanSpace(text[at])) ++at;
  if (at >= text.size() || text[at] != u'=') return u"";
  ++at;
  while (at < text.size() && IsScanSpace(text[at])) ++at;
  size_t value = at;
  while (at < text.size() && at - value < kTaglibUnits && text[at] != u' ' && text[at] != u'%') ++at;
  std::u16string_view prefix = text.substr(value, at - value);
  if (prefix.empty()) return u"";
  if (prefix.front() == u'\'' || prefix.front() == u'"') prefix.remove_prefix(1);
  if (!prefix.empty() && (prefix.back() == u'\'' || prefix.back() == u'"')) prefix.remove_suffix(1);
  return std::u16string(prefix) + u":";
}

ElementFinding Finding(ElementProblem kind, bool breaksMerge, std::u16string_view element, size_t offset) {
  ElementFinding f;
  f.kind = kind;
  f.breaksMerge = breaksMerge;
  f.element = element;
  f.elementOffset = offset;
  return f;
}

class Replay : public ScanSink {
 public:
  explicit Replay(const Profile& profile) : profile_(profile) {
    for (const std::u16string& p : profile.tagPrefixes) AddPrefix(p);
    AddPrefix(u"script");
    AddPrefix(u"style");
    for (const std::u16string& n : profile.nonHtmlTags) nonHtml_.insert(Folded(n));
    nonHtml_.insert(u"script");
    nonHtml_.insert(u"style");
  }

  bool Directive(std::u16string_view text, int32_t offset) override {
    std::u16string prefix = TaglibPrefix(text);
    if (!prefix.empty()) AddPrefix(prefix);
    bool cut = cutDirective_ && offset == cutOffset_;
    if (cut && DescribeOpenEnd(text, profile_.directiveStart, profile_.directiveEnd).bServerBlockOpen) {
      openBlock_ = Finding(ElementProblem::kOpenBlockAtEnd, false, text, static_cast<size_t>(offset));
      hasOpenBlock_ = true;
    }
    return true;
  }

  bool OpenTagBegin(std::u16string_view name, int32_t offset) override {
    bool server = IsServerByPrefix(name);
    Push(name, offset, server);
    if (server && nonHtml_.count(Folded(name))) MarkNonHtml();
    return true;
  }

  bool Attribute(std::u16string_view name, std::u16string_view value) override {
    if (stack_.empty() || !profile_.attributeRules) return true;
    Entry& top = stack_.back();
    for (size_t i = 0; i < profile_.ruleNames.size() && i < profile_.ruleValues.size(); ++i) {
      const std::u16string &ruleName = profile_.ruleNames[i], &ruleValue = profile_.ruleValues[i];
      if (Folded(name) != Folded(ruleName) || Folded(value) != Folded(ruleValue)) continue;
      top.server = true;
      bool denotes = i < profile_.ruleNonHtml.size() && profile_.ruleNonHtml[i] != 0;
      if (!denotes || top.nonHtml || BeginsFolded(top.name, u"form")) continue;
      if (BeginsFolded(ruleName, u"runat") && BeginsFolded(ruleValue, u"server")) MarkNonHtml();
    }
    return true;
  }

  bool OpenTagEnd(int32_t, std::u16string_view closing) override {
    if (!stack_.empty() && closing.ends_with(u"/")) Pop();
    return true;
  }

  bool CloseTagBegin(std::u16string_view name, int32_t offset) override {
    auto found = topByName_.find(Folded(name));
    if (found == topByName_.end()) {
      Push(name, offset, IsServerByPrefix(name));
      return true;
    }
    size_t match = found->second;
    while (stack_.size() > match + 1) {
      const Entry& popped = stack_.back();
      if (popped.server) {
        findings_.push_back(Finding(ElementProblem::kClosedEarly, popped.nonHtml, popped.name, popped.offset));
        findings_.back().closer = name;
        findings_.back().closerOffset = static_cast<size_t>(offset);
        findings_.back().matched = stack_[match].name;
        findings_.back().matchedOffset = stack_[match].offset;
      }
      Pop();
    }
    return true;
  }

  bool CloseTagEnd(int32_t) override {
    if (!stack_.empty()) Pop();
    return true;
  }

  bool Text(std::u16string_view, int32_t) override { return true; }

  void Cut(Unfinished kind, int32_t offset) override {
    cutDirective_ = kind == Unfinished::kDirective;
    cutOffset_ = offset;
  }

  // The findings, once the whole page has been reported.
  std::vector<ElementFinding> Finish() {
    for (const Entry& open : stack_)
      if (open.server) findings_.push_back(Finding(ElementProblem::kNeverClosed, open.nonHtml, open.name, open.offset));
    if (hasOpenBlock_) findings_.push_back(openBlock_);
    return std::move(findings_);
  }

 private:
  struct Entry {
    std::u16string name, folded;
    size_t offset;
    bool server;
    bool nonHtml = false;
    size_t belowSame = SIZE_MAX;  // the entry of the same folded name under it, SIZE_MAX for none
  };

  void AddPrefix(std::u16string_view prefix) {
    std::u16string folded = Folded(prefix);
    prefixLengths_.insert(folded.size());
    prefixes_.insert(std::move(folded));
  }

  bool IsServerByPrefix(std::u16string_view name) const {
    std::u16string folded = Folded(name);
    std::u16string_view view = folded;
    for (size_t n : prefixLengths_)
      if (n <= view.size() && prefixes_.find(view.substr(0, n)) != prefixes_.end()) return true;
    return false;
  }

  // The top entry's content is not HTML: the library counts it until the
  // entry's own close tag, or its self-closing end, takes it off.
  void MarkNonHtml() { stack_.back().nonHtml = true; }

  void Push(std::u16string_view name, size_t offset, bool server) {
    stack_.push_back({std::u16string(name), Folded(name), offset, server});
    Entry& top = stack_.back();
    auto [found, added] = topByName_.try_emplace(top.folded, stack_.size() - 1);
    if (!added) top.belowSame = std::exchange(found->second, stack_.size() - 1);
  }

  void Pop() {
    const Entry& top = stack_.back();
    auto found = topByName_.find(top.folded);
    if (top.belowSame == SIZE_MAX) topByName_.erase(found);
    else found->second = top.belowSame;
    stack_.pop_back();
  }

  const Profile& profile_;
  NameSet prefixes_, nonHtml_;  // folded
  std::unordered_set<size_t> prefixLengths_;
  std::vector<Entry> stack_;
  std::unordered_map<std::u16string, size_t> topByName_;  // folded name to its innermost entry
  std::vector<ElementFinding> findings_;
  bool cutDirective_ = false;
  int32_t cutOffset_ = -1;
  bool hasOpenBlock_ = false;
  ElementFinding openBlock_;
};

std::string Shown(std::u16string_view name) { return EncodeUtf8(name); }

// The start of a block for a message: up to 24 units of its first line.
std::string Snippet(std::u16string_view block) {
  size_t n = std::min<size_t>({block.size(), 24, block.find_first_of(u"\r\n")});
  std::string shown = "`";
  shown += EncodeUtf8(block.substr(0, n));
  shown += n < block.size() ? "...`" : "`";
  return shown;
}

// An element that HTML defines as empty (<input>, <img>, <br>, ...), which
// pages write without a close tag. The library knows no such elements: a
// server element is open until its close tag unless its open tag ends in
// "/>".
bool IsEmptyHtmlElement(std::u16string_view name) {
  static const char16_t* const kEmpty[] = {u"area", u"base", u"br",    u"col",   u"embed", u"hr",
                                           u"img",  u"input", u"keygen", u"link", u"meta",  u"param",
                                           u"source", u"track", u"wbr"};
  const std::u16string folded = Folded(name);
  return std::any_of(std::begin(kEmpty), std::end(kEmpty), [&](const char16_t* e) { return folded == e; });
}

// For a server element that HTML defines as empty: why it is open at all,
// and the fix.
std::string EmptyElementHint(const ElementFinding& f) {
  if (f.kind == ElementProblem::kOpenBlockAtEnd || !IsEmptyHtmlElement(f.element)) return "";
  return " (<" + Shown(f.element) + "> is an empty element in HTML, but a server element whose open tag does not " +
         "end in \"/>\" is taken to hold content up to its close tag: write it <" + Shown(f.element) + " ... />)";
}

std::string Consequence(const ElementFinding& f) {
  if (f.kind == ElementProblem::kOpenBlockAtEnd) return "it is translated as server code up to the end of the page";
  if (f.breaksMerge)
    return "its content is not HTML, and the library, counting it as open, labels nothing after it and refuses to "
           "merge the page";
  return "the merge goes on";
}

}  // namespace

std::vector<ElementFinding> ReplayServerElements(std::u16string_view page, const Profile& profile) {
  Replay replay(profile);
  ScanPage(page, replay);
  return replay.Finish();
}

PlaceTable::PlaceTable(std::u16string_view text) {
  lineStarts_.push_back(0);
  for (size_t i = 0; i < text.size(); ++i)
    if (text[i] == u'\n') lineStarts_.push_back(i + 1);
}

Place PlaceTable::At(size_t offset) const {
  auto after = std::upper_bound(lineStarts_.begin(), lineStarts_.end(), offset);
  size_t line = static_cast<size_t>(after - lineStarts_.begin());
  return {line, offset - lineStarts_[line - 1] + 1};
}

size_t FindingOffset(const ElementFinding& finding) {
  return finding.kind == ElementProblem::kClosedEarly ? finding.closerOffset : finding.elementOffset;
}

std::string DescribeFinding(const ElementFinding& f, const PlaceTable& places) {
  std::string element = "<";
  element += Shown(f.element) + "> (line " + std::to_string(places.At(f.elementOffset).line) + ")";
  std::string what;
  if (f.kind == ElementProblem::kClosedEarly) {
    Place at = places.At(f.closerOffset);
    what = "the close tag </" + Shown(f.closer) + "> at line " + std::to_string(at.line) + ", column " +
           std::to_string(at.column) + " closes the server element " + element + " early: it ends the <" +
           Shown(f.matched) + "> of line " + std::to_string(places.At(f.matchedOffset).line) + ", which encloses it";
  } else if (f.kind == ElementProblem::kNeverClosed) {
    what = "the server element " + element + " is never closed";
  } else {
    what = "the server block ";
    what += Snippet(f.element) + " (line " + std::to_string(places.At(f.elementOffset).line) +
            ") is open at the end of the page";
  }
  return what + EmptyElementHint(f) + "; " + Consequence(f);
}

}  // namespace qzhost
