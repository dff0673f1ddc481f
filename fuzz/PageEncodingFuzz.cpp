// Page bytes in any encoding, as the command reads them and writes them
// back. Decoding never crashes; a page it refuses leaves no text and says
// why; a page it takes without a word is written back byte for byte, and
// survives the trip through a server in its own encoding with labels put
// into it (labels are ASCII, which every page encoding must carry).
//
// Input: a selector byte, then the page's bytes. The selector's low two bits
// pick the profile's declaration (none, php, erb, asp); the next three an
// encoding named on the command line, or none.
#include <string>
#include <vector>

#include "FuzzHost.h"
#include "HostContract.h"
#include "PageEncoding.h"

using namespace qzfuzz;

namespace {

const qzhost::ServerDeclaration kServers[] = {qzhost::ServerDeclaration::kNone, qzhost::ServerDeclaration::kPhpDeclare,
                                             qzhost::ServerDeclaration::kErbMagicComment,
                                             qzhost::ServerDeclaration::kAspDirective};
const char* const kOptions[] = {"", "", "", "UTF-8", "UTF-16LE", "windows-1252", "Shift_JIS", "GB18030"};

// The page with a label comment before its first unit and after its last,
// as the pre pass puts them around server code.
std::u16string Labelled(const std::u16string& text) {
  return std::u16string(kLabelCommentHead) + u"0" + kLabelCommentTail + text + kLabelCommentHead + u"1" +
         kLabelCommentTail;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t selector = data[0];
  std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  std::u16string text;
  qzhost::PageEncoding encoding;
  std::vector<std::string> warnings;
  std::string error;
  if (!qzhost::DecodePage(bytes, kOptions[(selector >> 2) & 7], kServers[selector & 3], &text, &encoding, &warnings,
                          &error)) {
    Check(text.empty() && !error.empty(), "a refused page leaves no text and says why");
    return 0;
  }
  if (warnings.empty())
    Check(qzhost::EncodePage(text, encoding) == bytes, "a page taken without a word is written back as it was");

  std::u16string back;
  Check(qzhost::DecodeOutput(qzhost::EncodePage(Labelled(text), encoding), encoding, "", &back, &error),
        "the labelled page comes back from an identity server: " + error);
  Check(back == Labelled(text) || !encoding.unwritable.empty(), "the labelled page survives its own encoding");
  return 0;
}
