// UTF-8 in and out: the conversions of Encoding.h for the encoding that
// messages, tests and the preview use.
#ifndef QZHOST_UTF8_H
#define QZHOST_UTF8_H

#include <cstddef>
#include <string>
#include <string_view>

namespace qzhost {

// Why a byte text could not be taken as a page.
enum class Utf8Error {
  kNone,
  kInvalid,  // not well-formed UTF-8 (stray, overlong, surrogate, cut off, beyond U+10FFFF)
  kNul,      // a NUL character, which the library's NUL-terminated texts cannot hold
};

// Decodes bytes as strict UTF-8 into UTF-16. A byte order mark at the very
// start is dropped. On failure returns the error, sets *errorOffset to the
// byte offset of the first byte of the offending sequence, and leaves *out
// holding the text decoded before it.
Utf8Error DecodeUtf8(std::string_view bytes, std::u16string* out, size_t* errorOffset);

// Encodes UTF-16 as UTF-8 without a byte order mark. A surrogate without its
// partner, which no decoded page can hold, becomes U+FFFD.
std::string EncodeUtf8(std::u16string_view text);

}  // namespace qzhost

#endif
