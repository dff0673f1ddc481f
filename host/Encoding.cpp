// Decoding and encoding through ICU's converters.
//
// Rules local to this file: a converter lives for one call and is closed on
// every exit path; output buffers are sized for the usual case up front and
// doubled when ICU reports that they ran full, so every call is linear in
// its input.
#include "Encoding.h"

#include <unicode/ucnv.h>
#include <unicode/ucnv_cb.h>
#include <unicode/utf16.h>

#include <algorithm>

namespace qzhost {
namespace {

// One ICU converter, closed when it goes.
class Converter {
 public:
  explicit Converter(const std::string& name) {
    UErrorCode status = U_ZERO_ERROR;
    converter_ = ucnv_open(name.c_str(), &status);
    if (U_FAILURE(status)) converter_ = nullptr;
  }
  ~Converter() {
    if (converter_) ucnv_close(converter_);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;
  UConverter* get() const { return converter_; }

 private:
  UConverter* converter_;
};

size_t CountLines(std::u16string_view text) {
  return 1 + static_cast<size_t>(std::count(text.begin(), text.end(), u'\n'));
}

// Decodes bytes until their end or the first offending sequence. *out holds
// what was decoded, *consumed how many bytes ICU took (the offending sequence
// included). Returns ICU's status.
UErrorCode ToUnicode(UConverter* converter, std::string_view bytes, std::u16string* out, size_t* consumed) {
  const char* source = bytes.data();
  const char* sourceEnd = source + bytes.size();
  size_t done = 0;
  out->resize(bytes.size() + 1);
  for (;;) {
    UChar* target = out->data() + done;
    UErrorCode status = U_ZERO_ERROR;
    ucnv_toUnicode(converter, &target, out->data() + out->size(), &source, sourceEnd, nullptr, true, &status);
    done = static_cast<size_t>(target - out->data());
    if (status == U_BUFFER_OVERFLOW_ERROR) {
      out->resize(out->size() * 2);
      continue;
    }
    out->resize(done);
    *consumed = static_cast<size_t>(source - bytes.data());
    return status;
  }
}

// The byte offset at which the unit at index `unit` of the decoded text
// begins. Only asked on the way to an error message, so it decodes again,
// with offsets, as far as that unit.
size_t ByteOffsetOfUnit(const std::string& encoding, std::string_view bytes, size_t unit) {
  Converter converter(encoding);
  std::u16string units(unit + 1, u'\0');
  std::vector<int32_t> offsets(unit + 1, 0);
  UChar* target = units.data();
  const char* source = bytes.data();
  UErrorCode status = U_ZERO_ERROR;
  ucnv_toUnicode(converter.get(), &target, units.data() + units.size(), &source, bytes.data() + bytes.size(),
                 offsets.data(), true, &status);
  return static_cast<size_t>(std::max(offsets[unit], 0));
}

// What the callback below needs to know of the call it serves.
struct ReferenceLog {
  const UChar* begin;  // the text being encoded
  const UChar* end;
  std::vector<size_t>* referenced;
};

// ICU calls this for each character the encoding cannot hold: it notes
// where the character stands and writes a decimal character reference. A
// lone surrogate becomes U+FFFD, which comes back here, from a source of
// ICU's own, when the encoding cannot hold that either.
void WriteReference(const void* context, UConverterFromUnicodeArgs* args, const UChar* units, int32_t length,
                    UChar32 codePoint, UConverterCallbackReason reason, UErrorCode* status) {
  if (reason > UCNV_IRREGULAR) return;
  const auto* log = static_cast<const ReferenceLog*>(context);
  bool ours = args->source >= log->begin && args->source <= log->end;
  if (ours && log->referenced) log->referenced->push_back(static_cast<size_t>(args->source - log->begin - length));
  if (U_IS_SURROGATE(codePoint)) {
    static const UChar kReplacement[] = {0xFFFD};
    const UChar* replacement = kReplacement;
    *status = U_ZERO_ERROR;
    ucnv_cbFromUWriteUChars(args, &replacement, kReplacement + 1, 0, status);
    return;
  }
  UCNV_FROM_U_CALLBACK_ESCAPE(UCNV_ESCAPE_XML_DEC, args, units, length, codePoint, reason, status);
}

}  // namespace

std::string CanonicalEncoding(const std::string& name) {
  Converter converter(name);
  if (!converter.get()) return "";
  UErrorCode status = U_ZERO_ERROR;
  const char* canonical = ucnv_getName(converter.get(), &status);
  return U_SUCCESS(status) && canonical ? canonical : "";
}

DecodeError DecodeText(std::string_view bytes, const std::string& encoding, std::u16string* out, DecodeStop* stop) {
  Converter converter(encoding);
  UErrorCode status = U_ZERO_ERROR;
  ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
  size_t consumed = 0;
  status = ToUnicode(converter.get(), bytes, out, &consumed);
  if (U_FAILURE(status)) {
    char invalid[32];
    int8_t nInvalid = sizeof invalid;
    UErrorCode ignored = U_ZERO_ERROR;
    ucnv_getInvalidChars(converter.get(), invalid, &nInvalid, &ignored);
    stop->byteOffset = consumed - std::min(consumed, static_cast<size_t>(std::max<int8_t>(nInvalid, 0)));
    stop->line = CountLines(*out);
    return DecodeError::kInvalid;
  }
  size_t nul = out->find(u'\0');
  if (nul == std::u16string::npos) return DecodeError::kNone;
  stop->byteOffset = ByteOffsetOfUnit(encoding, bytes, nul);
  stop->line = CountLines(std::u16string_view(*out).substr(0, nul));
  out->resize(nul);
  return DecodeError::kNul;
}

std::string EncodeText(std::u16string_view text, const std::string& encoding, std::vector<size_t>* referenced) {
  Converter converter(encoding);
  if (referenced) referenced->clear();
  ReferenceLog log = {text.data(), text.data() + text.size(), referenced};
  UErrorCode status = U_ZERO_ERROR;
  ucnv_setFromUCallBack(converter.get(), WriteReference, &log, nullptr, nullptr, &status);
  // Room for one byte a unit and a little more, what most pages need;
  // the longest a unit can become would hold two or three times that for
  // as long as the result lives.
  std::string out(text.size() + text.size() / 8 + 16, '\0');
  const UChar* source = text.data();
  size_t done = 0;
  for (;;) {
    char* target = out.data() + done;
    status = U_ZERO_ERROR;
    ucnv_fromUnicode(converter.get(), &target, out.data() + out.size(), &source, text.data() + text.size(), nullptr,
                     true, &status);
    done = static_cast<size_t>(target - out.data());
    if (status != U_BUFFER_OVERFLOW_ERROR) break;
    out.resize(out.size() * 2);
  }
  out.resize(done);
  return out;
}

}  // namespace qzhost
