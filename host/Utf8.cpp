// UTF-8 through the host's conversions (Encoding.h).
#include "Utf8.h"

#include "Encoding.h"

namespace qzhost {

Utf8Error DecodeUtf8(std::string_view bytes, std::u16string* out, size_t* errorOffset) {
  size_t mark = bytes.starts_with("\xEF\xBB\xBF") ? 3 : 0;
  DecodeStop stop;
  DecodeError error = DecodeText(bytes.substr(mark), "UTF-8", out, &stop);
  *errorOffset = error == DecodeError::kNone ? 0 : mark + stop.byteOffset;
  if (error == DecodeError::kInvalid) return Utf8Error::kInvalid;
  return error == DecodeError::kNul ? Utf8Error::kNul : Utf8Error::kNone;
}

std::string EncodeUtf8(std::u16string_view text) { return EncodeText(text, "UTF-8"); }

}  // namespace qzhost
