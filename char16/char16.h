// Stand-in for the host's UTF-16 string library. Text is char16_t, NUL-
// terminated. Only what the extension relies on is promised here; a host's
// own library with the same names can take this one's place.
#ifndef QZ_CHAR16_H
#define QZ_CHAR16_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#define CHAR16_API extern "C" __attribute__((visibility("default")))

// Returns the literal itself, NUL-terminated; never to be released.
CHAR16_API const char16_t* char16_literal(const char16_t* literal);

// Formats into buffer, at most size units including the NUL (nothing is
// written when size is 0). Conversions: %d %i %u %x %X %c with flags - and 0,
// a width and a precision; %ls (a UTF-16 text; %s is taken the same way);
// %%. Returns the number of units written without the NUL.
CHAR16_API int char16_swprintf(char16_t* buffer, size_t size, const char16_t* format, ...);
CHAR16_API int char16_vswprintf(char16_t* buffer, size_t size, const char16_t* format, va_list args);

// Scans text by format. White space in the format skips any white space in
// the text; other units must match. Conversions: %d (int*), %Nls (up to N
// non-white-space units into a char16_t*, NUL added), %Nl[set] and
// %Nl[^set] (char16_t* buffer, then the buffer's size as an int), %%.
// Returns the number of fields stored, or -1 when the text ends before the
// first conversion.
CHAR16_API int char16_swscanf(const char16_t* text, const char16_t* format, ...);

// Lower-case map: A..Z to a..z, every other unit to itself.
CHAR16_API const char16_t __wlower_mapC[65536];

// Class masks. Units of 128 and above have none.
enum : uint16_t {
  kChar16Upper = 0x001,
  kChar16Lower = 0x002,
  kChar16Control = 0x004,
  kChar16Digit = 0x008,
  kChar16Hex = 0x010,
  kChar16Blank = 0x040,
  kChar16Punct = 0x080,
  kChar16Space = 0x100
};
CHAR16_API const uint16_t __wctype_mapC[65536];

#endif
