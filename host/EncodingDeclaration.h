// A page's own statement of its encoding, read from its bytes before they
// are decoded: the declaration its server honours, an XML declaration, or
// an HTML <meta>.
#ifndef QZHOST_ENCODINGDECLARATION_H
#define QZHOST_ENCODINGDECLARATION_H

#include <cstddef>
#include <string>
#include <string_view>

namespace qzhost {

// Where a profile's server reads a page's encoding from the page itself.
enum class ServerDeclaration {
  kNone,
  kPhpDeclare,       // declare(encoding='...'), which PHP honours when built for multibyte scripts
  kErbMagicComment,  // <%# coding: ... %> at the very start, as ERB reads it
  kAspDirective,     // <%@ Page ResponseEncoding="..." CodePage="..." %>, and classic ASP's <%@ CODEPAGE=... %>
};

// Declarations are looked for in the page's first bytes only, where they
// belong.
constexpr size_t kDeclarationWindow = 64 * 1024;

struct Declaration {
  std::string name;  // the encoding to read the page in: as written, a code page made a name, or a wider label
  std::string what;  // for messages: what declares it and on which line
};

// Finds the page's declared encoding, in this order: the server's own
// declaration, an XML declaration at the very start, the first <meta>
// that names a charset (charset="..." or http-equiv="Content-Type" with
// content="...; charset=..."). Bytes are read as ASCII. Labels that
// browsers read as a wider encoding are taken as that encoding (gb2312 and
// GBK as GB18030, ISO-8859-1 and US-ASCII as windows-1252, EUC-KR as
// windows-949), and a code page number as the encoding it stands for.
// Returns false when the page declares nothing.
bool FindDeclaredEncoding(std::string_view bytes, ServerDeclaration server, Declaration* found);

}  // namespace qzhost

#endif
