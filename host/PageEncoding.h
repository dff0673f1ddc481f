// A page's encoding: how it is found, how the page and the server's output
// are read in it, and how the pages the command writes are written back in
// it, byte order mark included.
//
// The page's encoding is, in this order: the one the command line names;
// the one a byte order mark at the start names (UTF-8, UTF-16LE, UTF-16BE;
// UTF-32 is refused); the one the page declares (EncodingDeclaration.h);
// UTF-8 when the bytes are valid UTF-8; else a statistical guess, with a
// warning.
#ifndef QZHOST_PAGEENCODING_H
#define QZHOST_PAGEENCODING_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "EncodingDeclaration.h"

namespace qzhost {

enum class EncodingSource { kOption, kByteOrderMark, kDeclaration, kUtf8, kGuess };

struct PageEncoding {
  std::string name;  // as ICU takes it and messages name it
  std::string mark;  // the byte order mark the page began with, or empty; written back before the text
  EncodingSource source = EncodingSource::kUtf8;
  std::string how;   // for messages: "declared by <meta charset> on line 3", "guessed", ...
  // Offsets in the decoded page of its characters that the encoding cannot
  // write back (it read them through a mapping that runs one way only).
  std::vector<size_t> unwritable;
};

// Checks an encoding name given on the command line: one ICU knows, and not
// UTF-32. On failure returns false with a one-line message.
bool CheckEncodingName(const std::string& name, std::string* error);

// Finds the page's encoding (option: --encoding, or empty) and decodes the
// page with it, its byte order mark kept apart. Warnings go to *warnings: a
// guessed encoding, a declared one ICU does not know, bytes that the
// encoding writes back otherwise than the page has them. On failure returns
// false with a message that continues "the page ...": what is wrong, the
// byte offset and line, and how to name the encoding; *text is then empty.
bool DecodePage(std::string_view bytes, const std::string& option, ServerDeclaration server, std::u16string* text,
                PageEncoding* encoding, std::vector<std::string>* warnings, std::string* error);

// Decodes the server's output: in option (--server-encoding) when given,
// else in the encoding a byte order mark at its start names, else in the
// page's. A byte order mark of the encoding used is dropped. Failures are
// told as by DecodePage, the hint naming --server-encoding.
bool DecodeOutput(std::string_view bytes, const PageEncoding& page, const std::string& option, std::u16string* text,
                  std::string* error);

// The bytes of a page the command writes (labelled or merged): the page's
// byte order mark, then text in the page's encoding, each character the
// encoding cannot hold written as a decimal character reference.
std::string EncodePage(std::u16string_view text, const PageEncoding& encoding);

}  // namespace qzhost

#endif
