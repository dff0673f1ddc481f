// Stand-in for the host's UTF-16 string library: a bounded formatter, a small
// scanner and the two 65536-entry tables.
//
// Rules local to this file: nothing here allocates, and nothing writes past
// the size it is given. The tables are constant data built by the compiler
// from the two class functions below, so they cost no start-up time and live
// in read-only memory.
#include "char16.h"

#include <climits>
#include <cstddef>
#include <cstdint>

namespace {

// ---------------------------------------------------------------------------
// Tables

constexpr bool IsAsciiPunct(unsigned u) {
  return (u >= 33 && u <= 47) || (u >= 58 && u <= 64) || (u >= 91 && u <= 96) ||
         (u >= 123 && u <= 126);
}

constexpr char16_t LowerOf(unsigned u) {
  return static_cast<char16_t>(u >= 'A' && u <= 'Z' ? u + ('a' - 'A') : u);
}

constexpr uint16_t ClassOf(unsigned u) {
  if (u >= 128) return 0;
  uint16_t mask = 0;
  if (u >= 'A' && u <= 'Z') mask |= kChar16Upper;
  if (u >= 'a' && u <= 'z') mask |= kChar16Lower;
  if (u < 32 || u == 127) mask |= kChar16Control;
  if (u >= '0' && u <= '9') mask |= kChar16Digit | kChar16Hex;
  if ((u >= 'A' && u <= 'F') || (u >= 'a' && u <= 'f')) mask |= kChar16Hex;
  if (u == ' ' || u == '\t') mask |= kChar16Blank;
  if (IsAsciiPunct(u)) mask |= kChar16Punct;
  if (u == ' ' || (u >= '\t' && u <= '\r')) mask |= kChar16Space;
  return mask;
}

// What the extension relies on, checked where the tables are made.
constexpr uint16_t kEscapedByUrls = kChar16Control | kChar16Punct | kChar16Space;
static_assert((ClassOf(' ') & kChar16Space) != 0 && (ClassOf('\r') & kChar16Space) != 0);
static_assert((ClassOf('A') & kEscapedByUrls) == 0 && (ClassOf('z') & kEscapedByUrls) == 0);
static_assert((ClassOf('0') & kEscapedByUrls) == 0 && (ClassOf(0xE9) & kEscapedByUrls) == 0);
static_assert((ClassOf('"') & kChar16Punct) != 0 && (ClassOf('~') & kChar16Punct) != 0);
static_assert((ClassOf(0) & kChar16Control) != 0 && (ClassOf(127) & kChar16Control) != 0);
static_assert(LowerOf('Q') == u'q' && LowerOf(0xC9) == 0xC9);

}  // namespace

// One initializer per unit, 0x0000 to 0xFFFF, spelled by pasting hex digits
// so that every entry is a constant expression the compiler folds. (The
// parameters are lower case so that the pasted digits A..F stay digits.)
#define QZ_T16(fn, pre)                                                                   \
  fn(pre##0), fn(pre##1), fn(pre##2), fn(pre##3), fn(pre##4), fn(pre##5), fn(pre##6),     \
      fn(pre##7), fn(pre##8), fn(pre##9), fn(pre##A), fn(pre##B), fn(pre##C), fn(pre##D), \
      fn(pre##E), fn(pre##F)
#define QZ_T256(fn, pre)                                                              \
  QZ_T16(fn, pre##0), QZ_T16(fn, pre##1), QZ_T16(fn, pre##2), QZ_T16(fn, pre##3),     \
      QZ_T16(fn, pre##4), QZ_T16(fn, pre##5), QZ_T16(fn, pre##6), QZ_T16(fn, pre##7), \
      QZ_T16(fn, pre##8), QZ_T16(fn, pre##9), QZ_T16(fn, pre##A), QZ_T16(fn, pre##B), \
      QZ_T16(fn, pre##C), QZ_T16(fn, pre##D), QZ_T16(fn, pre##E), QZ_T16(fn, pre##F)
#define QZ_T4096(fn, pre)                                                                 \
  QZ_T256(fn, pre##0), QZ_T256(fn, pre##1), QZ_T256(fn, pre##2), QZ_T256(fn, pre##3),     \
      QZ_T256(fn, pre##4), QZ_T256(fn, pre##5), QZ_T256(fn, pre##6), QZ_T256(fn, pre##7), \
      QZ_T256(fn, pre##8), QZ_T256(fn, pre##9), QZ_T256(fn, pre##A), QZ_T256(fn, pre##B), \
      QZ_T256(fn, pre##C), QZ_T256(fn, pre##D), QZ_T256(fn, pre##E), QZ_T256(fn, pre##F)
#define QZ_T65536(fn)                                                             \
  QZ_T4096(fn, 0x0), QZ_T4096(fn, 0x1), QZ_T4096(fn, 0x2), QZ_T4096(fn, 0x3),     \
      QZ_T4096(fn, 0x4), QZ_T4096(fn, 0x5), QZ_T4096(fn, 0x6), QZ_T4096(fn, 0x7), \
      QZ_T4096(fn, 0x8), QZ_T4096(fn, 0x9), QZ_T4096(fn, 0xA), QZ_T4096(fn, 0xB), \
      QZ_T4096(fn, 0xC), QZ_T4096(fn, 0xD), QZ_T4096(fn, 0xE), QZ_T4096(fn, 0xF)

const char16_t __wlower_mapC[65536] = {QZ_T65536(LowerOf)};
const uint16_t __wctype_mapC[65536] = {QZ_T65536(ClassOf)};

#undef QZ_T65536
#undef QZ_T4096
#undef QZ_T256
#undef QZ_T16

namespace {

bool IsSpaceUnit(char16_t u) { return u < 128 && (__wctype_mapC[u] & kChar16Space) != 0; }
bool IsDigitUnit(char16_t u) { return u >= '0' && u <= '9'; }
bool IsHighSurrogate(char16_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLowSurrogate(char16_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

// Widths and precisions beyond this are held at it; the output is cut at the
// buffer's size long before.
constexpr size_t kMaxWidth = INT_MAX;

// ---------------------------------------------------------------------------
// Formatting

// The bounded writer. Once a unit does not fit, bCut is set and nothing more
// is written, so the text stays a clean prefix of the full result.
struct Out {
  char16_t* pBuffer;
  size_t nSize;  // units the buffer holds, NUL included
  size_t nUsed;  // units written, NUL excluded
  bool bCut;
};

void Put(Out* out, char16_t u) {
  if (out->bCut) return;
  if (out->nUsed + 1 < out->nSize) {
    out->pBuffer[out->nUsed++] = u;
    return;
  }
  out->bCut = true;
  // A pair cut in the middle would leave a lone high surrogate: drop it.
  if (IsLowSurrogate(u) && out->nUsed > 0 && IsHighSurrogate(out->pBuffer[out->nUsed - 1]))
    --out->nUsed;
}

void PutRepeat(Out* out, char16_t u, size_t n) {
  for (; n > 0 && !out->bCut; --n) Put(out, u);
}

void PutAscii(Out* out, const char* text, size_t n) {
  for (size_t i = 0; i < n && !out->bCut; ++i) Put(out, static_cast<char16_t>(text[i]));
}

// One parsed conversion: "%", flags, width, .precision, length, letter.
struct Conversion {
  bool bLeft = false;
  bool bZero = false;
  bool bPlus = false;
  bool bSpace = false;
  bool bAlt = false;
  size_t nWidth = 0;
  bool bPrecision = false;
  size_t nPrecision = 0;
  int nLength = 0;  // 0 none, 'H' hh, 'h', 'l', 'L' ll, 'z', 'j', 't'
  char16_t letter = 0;  // d i u x X c s or %
};

// Reads decimal digits, held at kMaxWidth.
size_t ReadCount(const char16_t** pp) {
  size_t n = 0;
  const char16_t* p = *pp;
  for (; IsDigitUnit(*p); ++p) {
    n = n * 10 + static_cast<size_t>(*p - '0');
    if (n > kMaxWidth) n = kMaxWidth;
  }
  *pp = p;
  return n;
}

// Parses the conversion that starts just after a "%". Returns false when the
// text is not a conversion this library knows; then nothing is consumed.
bool ParseConversion(const char16_t** pp, Conversion* conv) {
  const char16_t* p = *pp;
  for (;; ++p) {
    if (*p == '-') conv->bLeft = true;
    else if (*p == '0') conv->bZero = true;
    else if (*p == '+') conv->bPlus = true;
    else if (*p == ' ') conv->bSpace = true;
    else if (*p == '#') conv->bAlt = true;
    else break;
  }
  conv->nWidth = ReadCount(&p);
  if (*p == '.') {
    ++p;
    conv->bPrecision = true;
    conv->nPrecision = ReadCount(&p);
  }
  switch (*p) {
    case 'h':
      ++p;
      conv->nLength = 'h';
      if (*p == 'h') {
        ++p;
        conv->nLength = 'H';
      }
      break;
    case 'l':
      ++p;
      conv->nLength = 'l';
      if (*p == 'l') {
        ++p;
        conv->nLength = 'L';
      }
      break;
    case 'z':
    case 'j':
    case 't':
      conv->nLength = *p++;
      break;
    default:
      break;
  }
  switch (*p) {
    case 'd': case 'i': case 'u': case 'x': case 'X': case 'c': case 's': case '%':
      conv->letter = *p++;
      *pp = p;
      return true;
    default:
      return false;
  }
}

// Pads to the width around a body of nBody units written by body().
template <typename Body>
void PutPadded(Out* out, const Conversion& conv, size_t nBody, Body body) {
  size_t nPad = conv.nWidth > nBody ? conv.nWidth - nBody : 0;
  if (!conv.bLeft) PutRepeat(out, ' ', nPad);
  body();
  if (conv.bLeft) PutRepeat(out, ' ', nPad);
}

void PutInteger(Out* out, const Conversion& conv, unsigned long long magnitude, bool bNegative) {
  bool bSigned = conv.letter == 'd' || conv.letter == 'i';
  bool bHex = conv.letter == 'x' || conv.letter == 'X';
  const char* digitSet = conv.letter == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
  unsigned base = bHex ? 16 : 10;

  char digits[24];
  size_t nDigits = 0;
  for (unsigned long long m = magnitude; m != 0; m /= base) digits[nDigits++] = digitSet[m % base];
  // Without a precision a zero still shows one digit; "%.0d" of 0 shows none.
  size_t nMinDigits = conv.bPrecision ? conv.nPrecision : 1;
  size_t nZeros = nMinDigits > nDigits ? nMinDigits - nDigits : 0;

  char prefix[3];
  size_t nPrefix = 0;
  if (bSigned && bNegative) prefix[nPrefix++] = '-';
  else if (bSigned && conv.bPlus) prefix[nPrefix++] = '+';
  else if (bSigned && conv.bSpace) prefix[nPrefix++] = ' ';
  if (bHex && conv.bAlt && magnitude != 0) {
    prefix[nPrefix++] = '0';
    prefix[nPrefix++] = static_cast<char>(conv.letter);
  }

  size_t nBody = nPrefix + nZeros + nDigits;
  if (conv.bZero && !conv.bLeft && !conv.bPrecision && conv.nWidth > nBody) {
    nZeros += conv.nWidth - nBody;
    nBody = conv.nWidth;
  }
  PutPadded(out, conv, nBody, [&] {
    PutAscii(out, prefix, nPrefix);
    PutRepeat(out, '0', nZeros);
    while (nDigits > 0 && !out->bCut) Put(out, static_cast<char16_t>(digits[--nDigits]));
  });
}

void PutText(Out* out, const Conversion& conv, const char16_t* text) {
  if (!text) text = u"(null)";
  // The precision bounds what is read, so an unterminated text is safe too.
  size_t nLimit = conv.bPrecision ? conv.nPrecision : SIZE_MAX;
  size_t n = 0;
  while (n < nLimit && text[n] != 0) ++n;
  PutPadded(out, conv, n, [&] {
    for (size_t i = 0; i < n && !out->bCut; ++i) Put(out, text[i]);
  });
}

long long SignedArg(const Conversion& conv, va_list* args) {
  switch (conv.nLength) {
    case 'H': return static_cast<signed char>(va_arg(*args, int));
    case 'h': return static_cast<short>(va_arg(*args, int));
    case 'l': return va_arg(*args, long);
    case 'L': return va_arg(*args, long long);
    case 'z': return static_cast<long long>(va_arg(*args, ptrdiff_t));
    case 'j': return static_cast<long long>(va_arg(*args, intmax_t));
    case 't': return static_cast<long long>(va_arg(*args, ptrdiff_t));
    default: return va_arg(*args, int);
  }
}

unsigned long long UnsignedArg(const Conversion& conv, va_list* args) {
  switch (conv.nLength) {
    case 'H': return static_cast<unsigned char>(va_arg(*args, unsigned));
    case 'h': return static_cast<unsigned short>(va_arg(*args, unsigned));
    case 'l': return va_arg(*args, unsigned long);
    case 'L': return va_arg(*args, unsigned long long);
    case 'z': return va_arg(*args, size_t);
    case 'j': return static_cast<unsigned long long>(va_arg(*args, uintmax_t));
    case 't': return static_cast<unsigned long long>(va_arg(*args, ptrdiff_t));
    default: return va_arg(*args, unsigned);
  }
}

void PutConversion(Out* out, const Conversion& conv, va_list* args) {
  switch (conv.letter) {
    case '%':
      Put(out, '%');
      return;
    case 'c': {
      char16_t u = static_cast<char16_t>(va_arg(*args, int));
      PutPadded(out, conv, 1, [&] { Put(out, u); });
      return;
    }
    case 's':
      PutText(out, conv, va_arg(*args, const char16_t*));
      return;
    case 'd':
    case 'i': {
      long long value = SignedArg(conv, args);
      // The magnitude of LLONG_MIN does not fit a long long; negate unsigned.
      unsigned long long magnitude = value < 0 ? 0ULL - static_cast<unsigned long long>(value)
                                               : static_cast<unsigned long long>(value);
      PutInteger(out, conv, magnitude, value < 0);
      return;
    }
    default:
      PutInteger(out, conv, UnsignedArg(conv, args), false);
      return;
  }
}

// ---------------------------------------------------------------------------
// Scanning

enum ScanStop { kScanGoOn, kScanInputEnd, kScanMismatch };

const char16_t* SkipSpace(const char16_t* p) {
  while (IsSpaceUnit(*p)) ++p;
  return p;
}

// %d: optional sign and digits, held at INT_MIN..INT_MAX. nWidth 0 is no limit.
ScanStop ScanInt(const char16_t** pp, size_t nWidth, int* pValue) {
  const char16_t* p = SkipSpace(*pp);
  if (*p == 0) return kScanInputEnd;
  size_t nLeft = nWidth ? nWidth : SIZE_MAX;
  bool bNegative = false;
  if ((*p == '-' || *p == '+') && nLeft > 0) {
    bNegative = *p == '-';
    ++p;
    --nLeft;
  }
  if (nLeft == 0 || !IsDigitUnit(*p)) return *p == 0 ? kScanInputEnd : kScanMismatch;
  long long value = 0;
  for (; nLeft > 0 && IsDigitUnit(*p); ++p, --nLeft) {
    value = value * 10 + (*p - '0');
    if (value > static_cast<long long>(INT_MAX) + 1) value = static_cast<long long>(INT_MAX) + 1;
  }
  if (bNegative) value = -value;
  if (value > INT_MAX) value = INT_MAX;
  *pValue = static_cast<int>(value);
  *pp = p;
  return kScanGoOn;
}

// %ls: up to nWidth (0: no limit) non-white-space units, then a NUL.
ScanStop ScanWord(const char16_t** pp, size_t nWidth, char16_t* buffer) {
  const char16_t* p = SkipSpace(*pp);
  if (*p == 0) return kScanInputEnd;
  size_t nLeft = nWidth ? nWidth : SIZE_MAX;
  size_t n = 0;
  for (; nLeft > 0 && *p != 0 && !IsSpaceUnit(*p); ++p, --nLeft) buffer[n++] = *p;
  buffer[n] = 0;
  *pp = p;
  return kScanGoOn;
}

bool InSet(const char16_t* set, const char16_t* setEnd, char16_t u) {
  for (const char16_t* s = set; s < setEnd; ++s)
    if (*s == u) return true;
  return false;
}

}  // namespace

// ---------------------------------------------------------------------------
// Entry points

const char16_t* char16_literal(const char16_t* literal) { return literal; }

int char16_vswprintf(char16_t* buffer, size_t size, const char16_t* format, va_list args) {
  Out out{buffer, buffer ? size : 0, 0, false};
  va_list argsCopy;
  va_copy(argsCopy, args);
  for (const char16_t* p = format ? format : u""; *p != 0 && !out.bCut;) {
    if (*p != '%') {
      Put(&out, *p++);
      continue;
    }
    Conversion conv;
    const char16_t* after = p + 1;
    if (!ParseConversion(&after, &conv)) {
      // Not a conversion: the "%" stands for itself and no value is taken.
      Put(&out, *p++);
      continue;
    }
    PutConversion(&out, conv, &argsCopy);
    p = after;
  }
  va_end(argsCopy);
  if (out.nSize > 0) out.pBuffer[out.nUsed] = 0;
  if (out.nSize == 0 || out.bCut || out.nUsed > INT_MAX) return -1;
  return static_cast<int>(out.nUsed);
}

int char16_swprintf(char16_t* buffer, size_t size, const char16_t* format, ...) {
  va_list args;
  va_start(args, format);
  int result = char16_vswprintf(buffer, size, format, args);
  va_end(args);
  return result;
}

int char16_swscanf(const char16_t* text, const char16_t* format, ...) {
  if (!text || !format) return -1;
  va_list args;
  va_start(args, format);
  int nStored = 0;
  ScanStop stop = kScanGoOn;
  const char16_t* t = text;
  const char16_t* f = format;
  while (*f != 0 && stop == kScanGoOn) {
    if (IsSpaceUnit(*f)) {
      f = SkipSpace(f);
      t = SkipSpace(t);
      continue;
    }
    if (*f != '%' || f[1] == '%') {
      if (*f == '%') {
        ++f;
        t = SkipSpace(t);
      }
      if (*t == 0) stop = kScanInputEnd;
      else if (*t != *f) stop = kScanMismatch;
      else {
        ++t;
        ++f;
      }
      continue;
    }
    ++f;
    size_t nWidth = ReadCount(&f);
    // "l" marks a text field; an int field takes no length modifier.
    bool bLong = *f == 'l';
    if (bLong) ++f;
    if (*f == 'd' && !bLong) {
      ++f;
      stop = ScanInt(&t, nWidth, va_arg(args, int*));
    } else if (*f == 's') {
      ++f;
      stop = ScanWord(&t, nWidth, va_arg(args, char16_t*));
    } else if (*f == '[') {
      ++f;
      bool bNegated = *f == '^';
      if (bNegated) ++f;
      // A "]" first in the set is a member, not the end.
      const char16_t* set = f;
      if (*f == ']') ++f;
      while (*f != 0 && *f != ']') ++f;
      if (*f == 0) {
        stop = kScanMismatch;
        break;
      }
      const char16_t* setEnd = f++;
      char16_t* buffer = va_arg(args, char16_t*);
      int nBuffer = va_arg(args, int);
      if (nBuffer < 1) {
        stop = kScanMismatch;
        break;
      }
      // The field ends at the width, when the buffer is full, or at a unit
      // outside the set.
      size_t nLeft = static_cast<size_t>(nBuffer) - 1;
      if (nWidth != 0 && nWidth < nLeft) nLeft = nWidth;
      size_t n = 0;
      for (; n < nLeft && *t != 0 && InSet(set, setEnd, *t) != bNegated; ++t) buffer[n++] = *t;
      if (n == 0) {
        stop = *t == 0 ? kScanInputEnd : kScanMismatch;
        break;
      }
      buffer[n] = 0;
    } else {
      stop = kScanMismatch;
      break;
    }
    if (stop == kScanGoOn) ++nStored;
  }
  va_end(args);
  return stop == kScanInputEnd && nStored == 0 ? -1 : nStored;
}
