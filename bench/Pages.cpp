#include "Pages.h"

namespace qzbench {
namespace {

// Repeats unit until the page holds about `units` code units.
std::u16string Repeat(std::u16string head, const std::u16string& unit, size_t units, const std::u16string& tail = u"") {
  std::u16string page = std::move(head);
  page.reserve(units + unit.size() + tail.size());
  while (page.size() + tail.size() < units) page += unit;
  return page + tail;
}

std::u16string Realistic(size_t units) {
  const std::u16string head =
      u"<!DOCTYPE html>\n<html><head><title><?= \"Report\" ?></title>\n"
      u"<style>td { padding: 2px }</style></head>\n<body>\n<?php $i = 0; ?>\n<h1>Items</h1>\n<table class=\"items\">\n";
  const std::u16string row =
      u"<tr class=\"<?= $i % 2 ? 'odd' : 'even' ?>\"><td><?= ++$i ?></td>"
      u"<td>Plain text about this item &amp; more.</td><td><a href=\"/item\">details</a></td></tr>\n";
  return Repeat(head, row, units, u"</table>\n<p>Made <?= date('Y') ?>.</p>\n</body></html>\n");
}

std::u16string Nested(size_t units) {
  const std::u16string open = u"<div class=\"d\">";
  const std::u16string close = u"</div>";
  size_t depth = units / (open.size() + close.size()) + 1;
  std::u16string page;
  page.reserve(depth * (open.size() + close.size()) + 16);
  for (size_t i = 0; i < depth; ++i) page += open;
  page += u"<?= 1 ?>";
  for (size_t i = 0; i < depth; ++i) page += close;
  return page;
}

// Half the page open tags never closed, then close tags of elements never
// opened, each of a name of its own: a close tag whose name the open-tag
// stack is searched for and never holds.
std::u16string StrayClose(size_t units) {
  std::u16string page = Repeat(u"<?= 1 ?>", u"<div>", units / 2);
  for (size_t i = 0; page.size() < units; ++i) {
    std::string name = "</x" + std::to_string(i) + ">";
    page.append(name.begin(), name.end());
  }
  return page;
}

}  // namespace

const std::vector<ShapeInfo>& Shapes() {
  static const std::vector<ShapeInfo> kShapes = {
      {Shape::kRealistic, "realistic"}, {Shape::kUnclosed, "unclosed"}, {Shape::kNested, "nested"},
      {Shape::kStrayClose, "stray"},    {Shape::kPieces, "pieces"},     {Shape::kAttrCode, "attrcode"},
      {Shape::kHashRuns, "hashruns"},
  };
  return kShapes;
}

std::u16string MakePage(Shape shape, size_t units) {
  switch (shape) {
    case Shape::kRealistic: return Realistic(units);
    case Shape::kUnclosed: return Repeat(u"", u"<p class=\"a\"><b>text ", units);
    case Shape::kNested: return Nested(units);
    case Shape::kStrayClose: return StrayClose(units);
    case Shape::kPieces: return Repeat(u"", u"<?=1?>", units);
    case Shape::kAttrCode: return Repeat(u"", u"<a href=\"<?= $u ?>\" id=\"x\">l</a>", units);
    case Shape::kHashRuns: return Repeat(u"<zboutput>", u"#(", units, u"</zboutput>");
  }
  return u"";
}

const qzhost::Profile& BenchProfile() {
  static const qzhost::Profile kProfile = [] {
    qzhost::Profile p = *qzhost::FindProfile("php");
    p.tagPrefixes.push_back(u"zboutput");
    return p;
  }();
  return kProfile;
}

std::u16string StandInServer(const std::u16string& labelled) {
  std::u16string out;
  out.reserve(labelled.size());
  size_t p = 0;
  for (;;) {
    size_t open = labelled.find(u"<?", p);
    if (open == std::u16string::npos) break;
    size_t close = labelled.find(u"?>", open + 2);
    if (close == std::u16string::npos) break;
    out.append(labelled, p, open - p);
    out += u"v1";
    p = close + 2;
  }
  out.append(labelled, p, std::u16string::npos);
  return out;
}

std::string AsciiBytes(const std::u16string& page) { return std::string(page.begin(), page.end()); }

}  // namespace qzbench
