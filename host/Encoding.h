// Conversions between bytes in a named encoding and the UTF-16 text the
// library works in. ICU's converters do the work; this is the whole of what
// the host asks of them, so that faster conversions can replace them here
// alone.
//
// Encodings are named as ICU names them, aliases included ("UTF-8",
// "windows-1252", "Shift_JIS", "GB18030", "UTF-16LE", ...). Byte order marks
// are not handled here: the caller keeps a page's mark apart (PageEncoding.h).
#ifndef QZHOST_ENCODING_H
#define QZHOST_ENCODING_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qzhost {

// Why bytes could not be taken as text.
enum class DecodeError {
  kNone,
  kInvalid,  // a byte sequence the encoding does not define, or one cut off by the end
  kNul,      // a NUL character, which the library's NUL-terminated texts cannot hold
};

// Where decoding stopped: the byte offset of the first byte of the offending
// sequence, and its line (from 1), counted in the text decoded before it, so
// that it is right in any encoding.
struct DecodeStop {
  size_t byteOffset = 0;
  size_t line = 0;
};

// ICU's own name for the encoding called name, or empty when ICU knows no
// such encoding. Names that mean the same converter give the same result.
std::string CanonicalEncoding(const std::string& name);

// Decodes bytes in the encoding into UTF-16, strictly: nothing is replaced.
// On failure returns the error with where it stopped; *out then holds the
// text decoded before that place. The encoding must be one ICU knows.
DecodeError DecodeText(std::string_view bytes, const std::string& encoding, std::u16string* out, DecodeStop* stop);

// Encodes text in the encoding. A character the encoding cannot hold is
// written as a decimal character reference ("&#937;"); *referenced, when
// given, then holds the index in text of each one's first unit. A
// surrogate without its partner is taken as U+FFFD. The encoding must be one
// ICU knows.
std::string EncodeText(std::u16string_view text, const std::string& encoding,
                       std::vector<size_t>* referenced = nullptr);

}  // namespace qzhost

#endif
