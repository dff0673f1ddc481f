// Finding a page's encoding, and reading and writing pages in it.
#include "PageEncoding.h"

#include <unicode/ucsdet.h>

#include <algorithm>
#include <cstdio>

#include "Encoding.h"

namespace qzhost {
namespace {

// How many candidates of the statistical guess are tried, best first.
constexpr int kGuessesTried = 3;
// How much of the page the guess looks at: from the line before its first
// byte outside ASCII, where the page's text shows its encoding.
constexpr size_t kGuessSample = 64 * 1024;

struct Mark {
  std::string_view name;  // empty: no mark
  size_t size = 0;
};

// The byte order mark at the start of bytes. UTF-32's marks are told apart
// from UTF-16's (FF FE 00 00 begins both), so that they can be refused.
Mark MarkAtStart(std::string_view bytes) {
  if (bytes.starts_with("\xEF\xBB\xBF")) return {"UTF-8", 3};
  if (bytes.starts_with(std::string_view("\xFF\xFE\0\0", 4))) return {"UTF-32LE", 4};
  if (bytes.starts_with(std::string_view("\0\0\xFE\xFF", 4))) return {"UTF-32BE", 4};
  if (bytes.starts_with("\xFF\xFE")) return {"UTF-16LE", 2};
  if (bytes.starts_with("\xFE\xFF")) return {"UTF-16BE", 2};
  return {};
}

bool IsUtf32(const std::string& canonical) { return canonical.starts_with("UTF-32"); }

// Encodings that hold every character, so that text read in them is written
// back as it was read.
bool HoldsEveryCharacter(const std::string& canonical) {
  return canonical == "UTF-8" || canonical.starts_with("UTF-16");
}

// The mark at the start of bytes when it is one of the encoding: the
// encoding then becomes the mark's own (UTF-16 with a mark says which
// UTF-16).
Mark MarkOfEncoding(std::string_view bytes, const std::string& name) {
  Mark mark = MarkAtStart(bytes);
  std::string canonical = CanonicalEncoding(name);
  if (mark.size == 0 || IsUtf32(std::string(mark.name))) return {};
  if (canonical == CanonicalEncoding(std::string(mark.name))) return mark;
  if (canonical == "UTF-16" && mark.name.starts_with("UTF-16")) return mark;
  return {};
}

// The character that begins at text[at], as "U+XXXX".
std::string CodePointAt(std::u16string_view text, size_t at) {
  char32_t c = text[at];
  if (c >= 0xD800 && c <= 0xDBFF && at + 1 < text.size() && text[at + 1] >= 0xDC00 && text[at + 1] <= 0xDFFF)
    c = 0x10000 + ((c - 0xD800) << 10) + (text[at + 1] - 0xDC00);
  char shown[16];
  std::snprintf(shown, sizeof shown, "U+%04X", static_cast<unsigned>(c));
  return shown;
}

// The message for bytes that did not decode; hint names the option that
// sets the encoding.
std::string Refusal(DecodeError error, const DecodeStop& stop, size_t markSize, const std::string& name,
                    const std::string& how, const std::string& option) {
  std::string where = "byte offset " + std::to_string(markSize + stop.byteOffset) + " (line " +
                      std::to_string(stop.line) + ")";
  if (error == DecodeError::kNul) return "holds a NUL character at " + where + ", which a page cannot hold";
  return "is not valid " + name + (how.empty() ? "" : " (" + how + ")") + ": bad byte sequence at " + where +
         "; give " + option + " NAME if it is in another encoding";
}

// Decodes the body (the bytes after the mark) in the encoding found; on
// failure returns false with the message.
bool DecodeBody(std::string_view bytes, const PageEncoding& encoding, const std::string& option, std::u16string* text,
                std::string* error) {
  DecodeStop stop;
  DecodeError e = DecodeText(bytes.substr(encoding.mark.size()), encoding.name, text, &stop);
  if (e == DecodeError::kNone) return true;
  *error = Refusal(e, stop, encoding.mark.size(), encoding.name, encoding.how, option);
  text->clear();
  return false;
}

// The candidates of ICU's guess, best first, but for the Unicode encodings,
// which a page would have shown by a mark or by being valid UTF-8.
std::vector<std::string> Guesses(std::string_view bytes) {
  size_t first = 0;
  while (first < bytes.size() && static_cast<unsigned char>(bytes[first]) < 0x80) ++first;
  size_t lineStart = bytes.rfind('\n', first);
  std::string_view sample = bytes.substr(lineStart == std::string_view::npos ? 0 : lineStart, kGuessSample);
  std::vector<std::string> names;
  UErrorCode status = U_ZERO_ERROR;
  UCharsetDetector* detector = ucsdet_open(&status);
  ucsdet_enableInputFilter(detector, true);
  ucsdet_setText(detector, sample.data(), static_cast<int32_t>(sample.size()), &status);
  int32_t n = 0;
  const UCharsetMatch** matches = ucsdet_detectAll(detector, &n, &status);
  for (int32_t i = 0; U_SUCCESS(status) && i < n && names.size() < kGuessesTried; ++i) {
    std::string name = ucsdet_getName(matches[i], &status);
    // The detector names some encodings (IBM420_rtl, ...) that ICU has no
    // converter for.
    if (U_SUCCESS(status) && !name.starts_with("UTF-") && !CanonicalEncoding(name).empty()) names.push_back(name);
  }
  ucsdet_close(detector);
  return names;
}

// The first guess in which the whole page decodes. Returns false when none
// does.
bool DecodeGuessed(std::string_view bytes, PageEncoding* encoding, std::u16string* text) {
  for (const std::string& name : Guesses(bytes)) {
    DecodeStop stop;
    if (DecodeText(bytes, name, text, &stop) != DecodeError::kNone) continue;
    encoding->name = name;
    encoding->source = EncodingSource::kGuess;
    encoding->how = "guessed";
    return true;
  }
  text->clear();
  return false;
}

// Warns when the page's bytes would not come back as they were: the
// encoding writes some of its characters otherwise, or cannot write them.
void CheckWrittenBack(std::string_view body, const std::u16string& text, PageEncoding* encoding,
                      std::vector<std::string>* warnings) {
  if (HoldsEveryCharacter(CanonicalEncoding(encoding->name))) return;
  std::string back = EncodeText(text, encoding->name, &encoding->unwritable);
  if (back == body) return;
  auto differ = std::mismatch(back.begin(), back.end(), body.begin(), body.end());
  size_t at = static_cast<size_t>(differ.first - back.begin());
  size_t line = 1 + static_cast<size_t>(std::count(body.begin(), body.begin() + std::min(at, body.size()), '\n'));
  std::string what = encoding->unwritable.empty()
                         ? encoding->name + " writes the character there otherwise than the page has it"
                         : "the page holds " + CodePointAt(text, encoding->unwritable.front()) + ", which " +
                               encoding->name +
                               " reads but cannot write; pages written get a character reference for it";
  warnings->push_back("line " + std::to_string(line) + " (byte offset " + std::to_string(encoding->mark.size() + at) +
                      "): " + what + ", so the pages written differ from the page from there");
}

// The page's encoding from its own bytes: a mark, a declaration or UTF-8;
// false when none settles it (the page is not UTF-8 and declares nothing
// ICU knows). *error is set when the bytes cannot be read at all.
bool EncodingOfBytes(std::string_view bytes, ServerDeclaration server, PageEncoding* encoding,
                     std::vector<std::string>* warnings, std::string* error) {
  Mark mark = MarkAtStart(bytes);
  if (IsUtf32(std::string(mark.name))) {
    *error = "begins with a " + std::string(mark.name) +
             " byte order mark; UTF-32 pages are not supported: save the page as UTF-8 or UTF-16";
    return false;
  }
  if (mark.size > 0) {
    *encoding = {std::string(mark.name), std::string(bytes.substr(0, mark.size)), EncodingSource::kByteOrderMark,
                 "by its byte order mark", {}};
    return true;
  }
  Declaration declared;
  if (!FindDeclaredEncoding(bytes, server, &declared)) return false;
  std::string canonical = CanonicalEncoding(declared.name);
  if (canonical.empty()) {
    warnings->push_back("the encoding " + declared.name + " (" + declared.what + ") is unknown, so it is passed over");
    return false;
  }
  // A page read as ASCII to find its declaration is not in UTF-16 or UTF-32,
  // whatever it says; browsers take it as UTF-8 too.
  bool wide = canonical.starts_with("UTF-16") || IsUtf32(canonical);
  *encoding = {wide ? "UTF-8" : declared.name, "", EncodingSource::kDeclaration, "declared by " + declared.what, {}};
  return true;
}

// The encoding --encoding names, with the page's mark when it has one of
// that encoding. ICU's UTF-16 without a byte order is big-endian, and would
// write a mark that the page does not have.
PageEncoding EncodingOfOption(std::string_view bytes, const std::string& option) {
  Mark mark = MarkOfEncoding(bytes, option);
  std::string name = CanonicalEncoding(option) == "UTF-16" ? "UTF-16BE" : option;
  return {mark.size ? std::string(mark.name) : name, std::string(bytes.substr(0, mark.size)), EncodingSource::kOption,
          "given by --encoding", {}};
}

// A page that names no encoding: UTF-8 when it is valid UTF-8, else a guess,
// with a warning. A NUL is refused in every encoding.
bool DecodeUndeclared(std::string_view bytes, std::u16string* text, PageEncoding* encoding,
                      std::vector<std::string>* warnings, std::string* error) {
  *encoding = {"UTF-8", "", EncodingSource::kUtf8, "", {}};
  DecodeStop stop;
  DecodeError e = DecodeText(bytes, "UTF-8", text, &stop);
  if (e == DecodeError::kNone) return true;
  text->clear();
  if (e == DecodeError::kNul) {
    *error = Refusal(e, stop, 0, "UTF-8", "", "--encoding") +
             " (a page in UTF-16 without a byte order mark needs --encoding)";
    return false;
  }
  if (!DecodeGuessed(bytes, encoding, text)) {
    *error = "is not valid UTF-8 (bad byte sequence at byte offset " + std::to_string(stop.byteOffset) + ", line " +
             std::to_string(stop.line) + "), declares no encoding, and no encoding could be guessed: give "
             "--encoding NAME";
    return false;
  }
  warnings->push_back("the page declares no encoding and is not valid UTF-8; it was read as " + encoding->name +
                      ", a guess: if that is wrong, give --encoding NAME");
  CheckWrittenBack(bytes, *text, encoding, warnings);
  return true;
}

}  // namespace

bool CheckEncodingName(const std::string& name, std::string* error) {
  std::string canonical = CanonicalEncoding(name);
  if (canonical.empty()) *error = "unknown encoding " + name;
  else if (IsUtf32(canonical)) *error = "UTF-32 is not supported (" + name + "): use UTF-8 or UTF-16";
  return !canonical.empty() && !IsUtf32(canonical);
}

bool DecodePage(std::string_view bytes, const std::string& option, ServerDeclaration server, std::u16string* text,
                PageEncoding* encoding, std::vector<std::string>* warnings, std::string* error) {
  error->clear();
  if (!option.empty()) *encoding = EncodingOfOption(bytes, option);
  else if (!EncodingOfBytes(bytes, server, encoding, warnings, error))
    return error->empty() && DecodeUndeclared(bytes, text, encoding, warnings, error);
  if (!DecodeBody(bytes, *encoding, "--encoding", text, error)) return false;
  CheckWrittenBack(bytes.substr(encoding->mark.size()), *text, encoding, warnings);
  return true;
}

bool DecodeOutput(std::string_view bytes, const PageEncoding& page, const std::string& option, std::u16string* text,
                  std::string* error) {
  PageEncoding output;
  output.name = option.empty() ? page.name : option;
  Mark mark = option.empty() ? MarkAtStart(bytes) : MarkOfEncoding(bytes, option);
  if (IsUtf32(std::string(mark.name))) {
    *error = "begins with a " + std::string(mark.name) + " byte order mark; UTF-32 is not supported";
    return false;
  }
  if (mark.size > 0) output.name = mark.name;
  output.mark = bytes.substr(0, mark.size);
  return DecodeBody(bytes, output, "--server-encoding", text, error);
}

std::string EncodePage(std::u16string_view text, const PageEncoding& encoding) {
  return encoding.mark + EncodeText(text, encoding.name);
}

}  // namespace qzhost
