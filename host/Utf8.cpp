#include "Utf8.h"

#include <cstdint>

namespace qzhost {

Utf8Error DecodeUtf8(std::string_view bytes, std::u16string* out, size_t* errorOffset) {
  out->clear();
  out->reserve(bytes.size());
  const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
  size_t n = bytes.size();
  size_t i = 0;
  if (n >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF) i = 3;
  while (i < n) {
    unsigned lead = b[i];
    if (lead < 0x80) {
      if (lead == 0) {
        *errorOffset = i;
        return Utf8Error::kNul;
      }
      out->push_back(static_cast<char16_t>(lead));
      ++i;
      continue;
    }
    // Length of the sequence and the range its second byte must lie in;
    // the narrowed ranges shut out overlong forms, surrogates and code
    // points above U+10FFFF.
    size_t len;
    unsigned lo = 0x80, hi = 0xBF;
    uint32_t cp;
    if (lead >= 0xC2 && lead <= 0xDF) {
      len = 2;
      cp = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      len = 3;
      cp = lead & 0x0F;
      if (lead == 0xE0) lo = 0xA0;
      if (lead == 0xED) hi = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      len = 4;
      cp = lead & 0x07;
      if (lead == 0xF0) lo = 0x90;
      if (lead == 0xF4) hi = 0x8F;
    } else {
      *errorOffset = i;
      return Utf8Error::kInvalid;
    }
    if (n - i < len || b[i + 1] < lo || b[i + 1] > hi) {
      *errorOffset = i;
      return Utf8Error::kInvalid;
    }
    for (size_t k = 1; k < len; ++k) {
      if ((b[i + k] & 0xC0) != 0x80) {
        *errorOffset = i;
        return Utf8Error::kInvalid;
      }
      cp = (cp << 6) | (b[i + k] & 0x3F);
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out->push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out->push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out->push_back(static_cast<char16_t>(cp));
    }
    i += len;
  }
  *errorOffset = 0;
  return Utf8Error::kNone;
}

std::string EncodeUtf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 2);
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t cp = text[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = 0xFFFD;
    }
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
  return out;
}

size_t LineOfByte(std::string_view bytes, size_t offset) {
  size_t line = 1;
  for (size_t i = 0; i < offset && i < bytes.size(); ++i)
    if (bytes[i] == '\n') ++line;
  return line;
}

}  // namespace qzhost
