// Forged server output: a page is labelled, then whatever a broken or
// hostile server could answer is scanned and merged with it (labels lost,
// repeated, renumbered or moved, label attributes rewritten, tags cut). The
// merge may refuse, but must never crash, trip an assertion or break the
// conventions of a script function, and the next translation must come out
// exactly as always.
//
// Input: a selector byte, the page, the server's answer, and after them the
// settings fields that the fourth settings selector reads, each after a 0xFF
// byte. selector % 4 picks the settings (PickSettings); with (selector / 4)
// odd (the digits '4' to '7') the answer is the labelled page edited by
// lines "FROM<tab>TO", each replacing every FROM in turn, else the answer is
// taken as it stands. An empty page stands for a fixed page that holds every
// kind of server markup.
#include <string>

#include "FuzzHost.h"

using namespace qzfuzz;

namespace {

const char16_t kFixedPage[] =
    u"<%@ Page Language=\"C#\" %>\n<%@ taglib prefix=\"my\" uri=\"u\" %>\n"
    u"<html><head><title><%= title %></title>\n<script>var a = \"<%= js %>\";</script></head>\n"
    u"<body class=\"<%= cls %>\" id=\"b\"><?php echo $p; ?>\n"
    u"<zboutput>#name#</zboutput><zboutput a=\"1\">#x# and #y#</zboutput>\n"
    u"<asp:Label id=\"l\" runat=\"server\" Text=\"<%# Eval(\"x\") %>\"/>\n"
    u"<asp:Panel runat=\"server\"><p>in <b>panel</b></p></asp:Panel>\n"
    u"<my:box a=\"1\">t</my:box><div runat=\"server\">raw <%= d %></div>\n"
    u"<form runat=\"server\" action=\"<%= a %>\"><input name=\"n\" value=\"<?= $v ?>\" /></form>\n"
    u"<ul><% for i in 1..3 %><li><%= i %></li><% end %></ul>\n"
    u"<!--#include file=\"inc.asp\"--><img src=\"<%= u %>\" alt=\"A b\"><br/>\n"
    u"</body></html>\n";

// Edits stop once the answer is this long: a few lines that each multiply
// it would otherwise make one input take minutes. A single line may still
// replace a short text by a long one, so each pass stops replacing there too.
// What is forged is the answer's structure, not its size (which the
// linearity test and the benchmarks look after): a small cap keeps the
// executions many.
constexpr size_t kMaxAnswer = 1 << 14;

// The labelled page with each line's replacement made in turn, every
// occurrence of a line's "from" replaced in one pass over the text, the
// answer kept within about twice kMaxAnswer.
std::u16string Edited(std::u16string labelled, std::u16string_view lines) {
  while (!lines.empty() && labelled.size() < kMaxAnswer) {
    size_t end = lines.find(u'\n');
    std::u16string_view line = lines.substr(0, end);
    lines.remove_prefix(end == std::u16string_view::npos ? lines.size() : end + 1);
    size_t tab = line.find(u'\t');
    if (tab == 0 || tab == std::u16string_view::npos) continue;
    std::u16string_view from = line.substr(0, tab), to = line.substr(tab + 1);
    std::u16string out;
    size_t p = 0;
    for (size_t q = labelled.find(from); q != std::u16string::npos && out.size() < kMaxAnswer;
         q = labelled.find(from, p)) {
      out.append(labelled, p, q - p).append(to);
      p = q + from.size();
    }
    labelled = out.append(labelled, p, std::u16string::npos);
  }
  return labelled;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::vector<std::string_view> fields = SplitFields(std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1));
  fields.resize(std::max<size_t>(fields.size(), 2));
  const Settings settings = PickSettings(data[0], {fields.begin() + 2, fields.end()});
  const std::u16string page = fields[0].empty() ? std::u16string(kFixedPage) : DecodeLoosely(fields[0]);
  const std::u16string answer = DecodeLoosely(fields[1]);
  {
    FuzzHost host;
    host.Call("initialize", {});
    std::u16string labelled, merged;
    if (host.Label(settings, page, &labelled)) {
      const std::u16string output = data[0] / 4 % 2 ? Edited(labelled, answer) : answer;
      host.Merge(settings, page, output, &merged);
    }
    host.Call("cleanup", {});
  }
  CheckNextTranslationExact();
  return 0;
}
