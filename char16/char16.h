// Stand-in for the host's UTF-16 string library. Text is char16_t, NUL-
// terminated. Only what the extension relies on is promised here; a host's
// own library with the same names can take this one's place. Nothing here
// allocates, and every function may be called from any thread.
#ifndef QZ_CHAR16_H
#define QZ_CHAR16_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#define CHAR16_API extern "C" __attribute__((visibility("default")))

// Returns the literal itself, NUL-terminated; never to be released.
CHAR16_API const char16_t* char16_literal(const char16_t* literal);

// Formats into buffer, at most size units including the NUL (nothing is
// written when size is 0). Conversions: %d %i %u %x %X %c with the flags
// - 0 + space #, a width, a precision and the lengths hh h l ll z j t; %ls
// (a UTF-16 text, "(null)" for a null pointer; %s is taken the same way);
// %%. A "%" that starts no such conversion stands for itself and takes no
// value. Returns the number of units written without the NUL, or -1 when
// size is 0 or the text had to be cut: the buffer then holds its beginning,
// NUL-terminated, never ending in half a surrogate pair.
CHAR16_API int char16_swprintf(char16_t* buffer, size_t size, const char16_t* format, ...);
CHAR16_API int char16_vswprintf(char16_t* buffer, size_t size, const char16_t* format, va_list args);

// Scans text by format. White space in the format skips any white space in
// the text; other units must match. Conversions: %Nd (int*; optional sign,
// held at INT_MIN..INT_MAX), %Nls (skips white space, then up to N
// non-white-space units into a char16_t*, NUL added), %Nl[set] and
// %Nl[^set] (char16_t* buffer, then the buffer's size as an int; the field
// also ends when the buffer is full), %%. N is optional. White space is
// what __wctype_mapC marks with kChar16Space. Returns the number of fields
// stored, or -1 when the text ends before the first conversion.
CHAR16_API int char16_swscanf(const char16_t* text, const char16_t* format, ...);

// Lower-case map: A..Z to a..z, every other unit to itself. Constant data.
CHAR16_API const char16_t __wlower_mapC[65536];

// Class masks, constant data. Units of 128 and above have none. Space (0x100)
// marks space, TAB, LF, VT, FF and CR; Blank space and TAB; Punct every ASCII
// punctuation unit; Control 0..31 and 127. Letters and digits carry none of
// Control, Punct and Space.
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
