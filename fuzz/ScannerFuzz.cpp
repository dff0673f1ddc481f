// The stand-in host's page scanner over any text. Every scan must report the
// whole page, in order, without gaps or overlaps: each item stands where the
// last one ended and is a view into the page at its own place; tags begin
// with "<" (or "</") and an ASCII letter and end just past a ">", with their
// attributes and closing text inside them in order; text runs are never
// empty and never follow each other; a cut-off construct is named at a "<".
// A sink that refuses a report stops the scan there.
//
// Input: the page, as any bytes (DecodeLoosely).
#include <string>

#include "FuzzHost.h"
#include "Scanner.h"

using namespace qzfuzz;

namespace {

bool IsAsciiLetter(char16_t u) { return (u >= u'a' && u <= u'z') || (u >= u'A' && u <= u'Z'); }

class Checker : public qzhost::ScanSink {
 public:
  explicit Checker(std::u16string_view page) : page_(page) {}

  size_t pos = 0;                  // where the next item must begin
  size_t nReports = 0;
  size_t nRefuseAt = SIZE_MAX;  // the report with this number is refused
  bool bInTag = false;

  bool Directive(std::u16string_view text, int32_t at) override {
    Begins(at, u"<", text.substr(1));
    Check(text.size() >= 2, "a directive is more than its \"<\"");
    pos = at + text.size();
    bText_ = false;
    return Report();
  }
  bool OpenTagBegin(std::u16string_view name, int32_t at) override {
    Begins(at, u"<", name);
    Check(!name.empty() && IsAsciiLetter(name[0]), "an open tag's name begins with an ASCII letter");
    pos = at + 1 + name.size();
    bInTag = true, bOpen_ = true, bText_ = false;
    return Report();
  }
  bool Attribute(std::u16string_view name, std::u16string_view value) override {
    Check(bInTag && bOpen_, "an attribute belongs to an open tag");
    Inside(name);
    Inside(value);
    return Report();
  }
  bool OpenTagEnd(int32_t end, std::u16string_view closing) override {
    Check(bInTag && bOpen_, "an open tag's end follows its begin");
    Inside(closing);
    Check(end > 0 && static_cast<size_t>(end) <= page_.size() && page_[end - 1] == u'>' &&
              closing.data() + closing.size() == page_.data() + end - 1,
          "an open tag ends just past the \">\" that follows its closing text");
    pos = end;
    bInTag = false;
    return Report();
  }
  bool CloseTagBegin(std::u16string_view name, int32_t at) override {
    Begins(at, u"</", name);
    Check(!name.empty() && IsAsciiLetter(name[0]), "a close tag's name begins with an ASCII letter");
    pos = at + 2 + name.size();
    bInTag = true, bOpen_ = false, bText_ = false;
    return Report();
  }
  bool CloseTagEnd(int32_t end) override {
    Check(bInTag && !bOpen_, "a close tag's end follows its begin");
    Check(end > 0 && static_cast<size_t>(end) >= pos && static_cast<size_t>(end) <= page_.size() &&
              page_[end - 1] == u'>',
          "a close tag ends just past a \">\" after its name");
    pos = end;
    bInTag = false;
    return Report();
  }
  bool Text(std::u16string_view text, int32_t at) override {
    Begins(at, u"", text);
    Check(!text.empty(), "a text run is never empty");
    Check(!bText_, "two text runs never follow each other");
    pos = at + text.size();
    bText_ = true;
    return Report();
  }
  void Cut(qzhost::Unfinished, int32_t at) override {
    Check(at >= 0 && static_cast<size_t>(at) >= pos && static_cast<size_t>(at) < page_.size() && page_[at] == u'<',
          "a cut-off construct is named at its \"<\"");
  }

 private:
  // The item at offset at is mark and then part, right where the last ended.
  void Begins(int32_t at, std::u16string_view mark, std::u16string_view part) {
    Check(!bInTag, "a tag ends before the next item begins");
    Check(at >= 0 && static_cast<size_t>(at) == pos, "item at " + std::to_string(at) + " begins where the last ended, at " +
                                                         std::to_string(pos));
    Check(page_.substr(pos, mark.size()) == mark && part.data() == page_.data() + pos + mark.size() &&
              pos + mark.size() + part.size() <= page_.size(),
          "an item is a view into the page at its own place");
  }
  // part lies in the page, at or after the end of what came before it.
  void Inside(std::u16string_view part) {
    Check(part.data() >= page_.data() + pos && part.data() + part.size() <= page_.data() + page_.size(),
          "a part of a tag lies inside the tag, in order");
    pos = part.data() + part.size() - page_.data();
  }
  bool Report() { return ++nReports != nRefuseAt; }

  std::u16string_view page_;
  bool bOpen_ = false;
  bool bText_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::u16string page = DecodeLoosely(std::string_view(reinterpret_cast<const char*>(data), size));
  Checker whole(page);
  Check(qzhost::ScanPage(page, whole), "a scan that no sink refuses reports the whole page");
  Check(whole.pos == page.size() && !whole.bInTag, "the reports cover the page to its end");
  if (whole.nReports == 0) return 0;
  // Refusing the middle report stops the scan: nothing follows it.
  Checker stopped(page);
  stopped.nRefuseAt = (whole.nReports + 1) / 2;
  Check(!qzhost::ScanPage(page, stopped), "a refused report stops the scan");
  Check(stopped.nReports == stopped.nRefuseAt, "nothing is reported after the refused report");
  return 0;
}
