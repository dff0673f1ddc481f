// Reading encoding declarations out of undecoded page bytes.
//
// Rules local to this file: every search and every attribute read moves
// forward, and a search resumes where the last read ended, so the window is
// walked a bounded number of times whatever it holds. Names are compared
// ignoring ASCII case.
#include "EncodingDeclaration.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace qzhost {
namespace {

char Fold(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }

std::string Folded(std::string_view s) {
  std::string out(s);
  std::transform(out.begin(), out.end(), out.begin(), Fold);
  return out;
}

// word (lower case) stands at s[at], in any letter case.
bool HasAt(std::string_view s, size_t at, std::string_view word) {
  if (at > s.size() || s.size() - at < word.size()) return false;
  for (size_t i = 0; i < word.size(); ++i)
    if (Fold(s[at + i]) != word[i]) return false;
  return true;
}

size_t FindFolded(std::string_view s, std::string_view word, size_t from) {
  for (size_t at = from; at < s.size(); ++at)
    if (HasAt(s, at, word)) return at;
  return std::string_view::npos;
}

size_t LineAt(std::string_view s, size_t at) {
  return 1 + static_cast<size_t>(std::count(s.begin(), s.begin() + at, '\n'));
}

size_t SkipSpaces(std::string_view s, size_t at) {
  while (at < s.size() && IsSpace(s[at])) ++at;
  return at;
}

struct Attribute {
  std::string name;  // folded
  std::string_view value;
};

// Reads the attributes of a construct from at up to its end text (">",
// "?>", "%>"); *next is just past the end text, or the end of s.
std::vector<Attribute> ReadAttributes(std::string_view s, size_t at, std::string_view end, size_t* next) {
  std::vector<Attribute> attributes;
  for (;;) {
    while (at < s.size() && (IsSpace(s[at]) || s[at] == '/')) ++at;
    if (at >= s.size() || s.compare(at, end.size(), end) == 0) break;
    size_t nameStart = at;
    while (at < s.size() && !IsSpace(s[at]) && s[at] != '=' && s[at] != '>' && s.compare(at, end.size(), end) != 0)
      ++at;
    if (at == nameStart) ++at;  // a stray "=" or ">": step over it
    Attribute a{Folded(s.substr(nameStart, at - nameStart)), {}};
    size_t afterName = SkipSpaces(s, at);
    if (afterName < s.size() && s[afterName] == '=') {
      at = SkipSpaces(s, afterName + 1);
      char quote = at < s.size() && (s[at] == '"' || s[at] == '\'') ? s[at] : 0;
      size_t valueStart = quote ? at + 1 : at;
      size_t valueEnd = quote ? s.find(quote, valueStart) : valueStart;
      if (quote && valueEnd == std::string_view::npos) valueEnd = s.size();
      while (!quote && valueEnd < s.size() && !IsSpace(s[valueEnd]) && s[valueEnd] != '>' &&
             s.compare(valueEnd, end.size(), end) != 0)
        ++valueEnd;
      a.value = s.substr(valueStart, valueEnd - valueStart);
      at = quote && valueEnd < s.size() ? valueEnd + 1 : valueEnd;
    }
    attributes.push_back(std::move(a));
  }
  *next = std::min(s.size(), at + end.size());
  return attributes;
}

std::string_view ValueOf(const std::vector<Attribute>& attributes, std::string_view name) {
  for (const Attribute& a : attributes)
    if (a.name == name) return a.value;
  return {};
}

// The encoding a Windows code page number stands for, by ICU's names for
// Windows code pages, but for those it knows under other names.
std::string CodePageName(std::string_view number) {
  std::string digits(number);
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos || digits.size() > 5) return "";
  long n = std::strtol(digits.c_str(), nullptr, 10);
  if (n == 20932 || n == 51932) return "EUC-JP";
  if (n >= 50220 && n <= 50222) return "ISO-2022-JP";
  if (n >= 28591 && n <= 28599) return "ISO-8859-" + std::to_string(n - 28590);
  return "windows-" + digits;
}

// Labels that browsers read as a wider encoding, which pages so labelled
// are in fact written in.
std::string Widened(std::string_view label) {
  static const std::pair<const char*, const char*> kWider[] = {
      {"gb2312", "GB18030"},          {"gbk", "GB18030"},           {"x-gbk", "GB18030"},
      {"csgb2312", "GB18030"},        {"chinese", "GB18030"},       {"gb_2312-80", "GB18030"},
      {"iso-8859-1", "windows-1252"}, {"iso8859-1", "windows-1252"}, {"latin1", "windows-1252"},
      {"us-ascii", "windows-1252"},   {"ascii", "windows-1252"},    {"euc-kr", "windows-949"},
      {"ks_c_5601-1987", "windows-949"},
  };
  std::string folded = Folded(label);
  for (const auto& [from, to] : kWider)
    if (folded == from) return to;
  return std::string(label);
}

// A name written by server code (charset="<?php bloginfo('charset'); ?>"):
// the server picks the encoding when the page runs, so the page states none
// here.
bool IsServerMade(std::string_view name) {
  return name.find("<?") != std::string_view::npos || name.find("<%") != std::string_view::npos;
}

bool Found(std::string_view bytes, size_t at, std::string name, const std::string& what, Declaration* found) {
  if (name.empty() || IsServerMade(name)) return false;
  *found = {Widened(name), what + " on line " + std::to_string(LineAt(bytes, at))};
  return true;
}

// <%@ Page ResponseEncoding="..." %>, CodePage="..." (also classic ASP's
// <%@ CODEPAGE=65001 %>), in the first directive that names either.
bool FindAspDirective(std::string_view s, Declaration* found) {
  for (size_t at = s.find("<%@"); at != std::string_view::npos; at = s.find("<%@", at)) {
    size_t start = at;
    std::vector<Attribute> attributes = ReadAttributes(s, at + 3, "%>", &at);
    std::string_view response = ValueOf(attributes, "responseencoding");
    if (!response.empty()) return Found(s, start, std::string(response), "ResponseEncoding", found);
    std::string_view codePage = ValueOf(attributes, "codepage");
    if (!codePage.empty()) return Found(s, start, CodePageName(codePage), "CodePage=" + std::string(codePage), found);
  }
  return false;
}

// ERB's magic comment: <%# coding: NAME %> (or encoding:, with -*- marks)
// as the page's very first construct.
bool FindErbMagicComment(std::string_view s, Declaration* found) {
  if (!s.starts_with("<%#")) return false;
  std::string_view comment = s.substr(3, s.find("%>") == std::string_view::npos ? 0 : s.find("%>") - 3);
  size_t at = comment.find("coding:");
  if (at == std::string_view::npos) return false;
  size_t start = SkipSpaces(comment, at + 7), end = start;
  while (end < comment.size() && !IsSpace(comment[end])) ++end;
  std::string_view name = comment.substr(start, end - start);
  if (name.ends_with("-*-")) name.remove_suffix(3);
  return Found(s, 0, std::string(name), "the magic comment", found);
}

// PHP's declare(encoding='NAME').
bool FindPhpDeclare(std::string_view s, Declaration* found) {
  for (size_t at = FindFolded(s, "declare", 0); at != std::string_view::npos; at = FindFolded(s, "declare", at + 1)) {
    size_t p = SkipSpaces(s, at + 7);
    if (p >= s.size() || s[p] != '(') continue;
    p = SkipSpaces(s, p + 1);
    if (!HasAt(s, p, "encoding")) continue;
    size_t next;
    std::string_view name = ValueOf(ReadAttributes(s, p, ")", &next), "encoding");
    return Found(s, at, std::string(name), "declare(encoding)", found);
  }
  return false;
}

bool FindXmlDeclaration(std::string_view s, Declaration* found) {
  if (!s.starts_with("<?xml") || s.size() < 6 || !IsSpace(s[5])) return false;
  size_t next;
  return Found(s, 0, std::string(ValueOf(ReadAttributes(s, 5, "?>", &next), "encoding")), "the XML declaration",
               found);
}

// The charset in a content type: "text/html; charset=NAME".
std::string_view CharsetOfContentType(std::string_view content) {
  size_t at = FindFolded(content, "charset", 0);
  if (at == std::string_view::npos) return {};
  at = SkipSpaces(content, at + 7);
  if (at >= content.size() || content[at] != '=') return {};
  at = SkipSpaces(content, at + 1);
  if (at < content.size() && (content[at] == '"' || content[at] == '\'')) ++at;
  size_t end = at;
  while (end < content.size() && !IsSpace(content[end]) && content[end] != ';' && content[end] != '"' &&
         content[end] != '\'')
    ++end;
  return content.substr(at, end - at);
}

bool FindMeta(std::string_view s, Declaration* found) {
  for (size_t at = FindFolded(s, "<meta", 0); at != std::string_view::npos; at = FindFolded(s, "<meta", at)) {
    size_t start = at;
    at += 5;
    if (at < s.size() && !IsSpace(s[at]) && s[at] != '/') continue;
    std::vector<Attribute> attributes = ReadAttributes(s, at, ">", &at);
    // A meta whose charset the server writes states nothing: the next one may.
    std::string_view charset = ValueOf(attributes, "charset");
    if (IsServerMade(charset)) continue;
    if (!charset.empty()) return Found(s, start, std::string(charset), "<meta charset>", found);
    if (Folded(ValueOf(attributes, "http-equiv")) != "content-type") continue;
    charset = CharsetOfContentType(ValueOf(attributes, "content"));
    if (IsServerMade(charset)) continue;
    if (!charset.empty()) return Found(s, start, std::string(charset), "<meta http-equiv=\"Content-Type\">", found);
  }
  return false;
}

}  // namespace

bool FindDeclaredEncoding(std::string_view bytes, ServerDeclaration server, Declaration* found) {
  std::string_view window = bytes.substr(0, std::min(bytes.size(), kDeclarationWindow));
  bool byServer = (server == ServerDeclaration::kAspDirective && FindAspDirective(window, found)) ||
                  (server == ServerDeclaration::kErbMagicComment && FindErbMagicComment(window, found)) ||
                  (server == ServerDeclaration::kPhpDeclare && FindPhpDeclare(window, found));
  return byServer || FindXmlDeclaration(window, found) || FindMeta(window, found);
}

}  // namespace qzhost
