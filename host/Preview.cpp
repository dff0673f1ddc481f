// The preview file: its layout (which lock belongs to which panel entry) and
// its markup. The styles and the script come from host/preview/ through the
// generated PreviewAssets.h.
//
// Every text from the input reaches the file through one of two escapes:
// Html() for element content and attribute values, Json() for the lock data
// read by the script. Neither lets a text end the element it stands in.
#include "Preview.h"

#include <algorithm>
#include <map>
#include <random>

#include "PreviewAssets.h"
#include "Profile.h"
#include "Utf8.h"

namespace qzhost {
namespace {

// "<qz:lock code=\"": what stands before the code of every lock the library
// makes with our lock format.
const std::string& LockHead() {
  static const std::string head = [] {
    std::string format = EncodeUtf8(kLockBeginFormat);
    return format.substr(0, format.find("%s"));
  }();
  return head;
}

// The text with CR LF and lone CR made LF, as the library writes line ends
// into lock codes.
std::string WithLfLineEnds(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\r') {
      out += text[i];
      continue;
    }
    out += '\n';
    if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
  }
  return out;
}

// The value of a hexadecimal digit, or -1.
int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// The code attributes of the merged page's locks, as written, in page order.
std::vector<std::string> FindLockCodes(std::string_view page) {
  const std::string& head = LockHead();
  std::vector<std::string> codes;
  for (size_t at = page.find(head); at != std::string_view::npos; at = page.find(head, at + head.size())) {
    size_t start = at + head.size();
    size_t end = page.find('"', start);
    if (end == std::string_view::npos) break;
    codes.emplace_back(page.substr(start, end - start));
  }
  return codes;
}

// Finds, for each lock code, the piece it came from: the first one after the
// last match, else the nearest one at or before it.
class PieceFinder {
 public:
  explicit PieceFinder(const std::vector<PreviewPiece>& pieces) {
    for (size_t i = 0; i < pieces.size(); ++i) byCode_[WithLfLineEnds(pieces[i].code)].push_back(static_cast<int>(i));
  }

  // The index of the piece, or -1 when no piece has that code.
  int Find(const std::string& code) {
    auto found = byCode_.find(code);
    if (found == byCode_.end()) return -1;
    const std::vector<int>& places = found->second;  // ascending
    auto after = std::upper_bound(places.begin(), places.end(), last_);
    last_ = after != places.end() ? *after : *(after - 1);
    return last_;
  }

 private:
  std::map<std::string, std::vector<int>> byCode_;
  int last_ = -1;
};

}  // namespace

std::string DecodeLockCode(std::string_view encoded) {
  std::string out;
  out.reserve(encoded.size());
  for (size_t i = 0; i < encoded.size(); ++i) {
    int high = i + 2 < encoded.size() && encoded[i] == '%' ? HexDigit(encoded[i + 1]) : -1;
    int low = high >= 0 ? HexDigit(encoded[i + 2]) : -1;
    if (low < 0) {
      out += encoded[i];
      continue;
    }
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return out;
}

namespace {

// For each lock, the piece it came from, or -1; for each lock without one,
// its place among the lock-only entries: lockOnlyAfter[p + 1] lists, in
// order, those that follow piece p.
struct LockOwners {
  std::vector<int> piece;
  std::vector<std::vector<int>> lockOnlyAfter;
};

LockOwners FindOwners(const std::vector<PreviewPiece>& pieces, const std::vector<std::string>& codes) {
  LockOwners owners{std::vector<int>(codes.size(), -1), std::vector<std::vector<int>>(pieces.size() + 1)};
  PieceFinder finder(pieces);
  int lastPiece = -1;
  for (size_t i = 0; i < codes.size(); ++i) {
    int piece = codes[i].empty() ? -1 : finder.Find(DecodeLockCode(codes[i]));
    if (piece < 0) {
      owners.lockOnlyAfter[static_cast<size_t>(lastPiece + 1)].push_back(static_cast<int>(i));
      continue;
    }
    owners.piece[i] = piece;
    lastPiece = piece;
  }
  return owners;
}

// Adds one entry for each lock that follows piece `after` (-1: none) without
// being one of the pieces.
void AddLockOnlyEntries(const LockOwners& owners, int after, PreviewLayout* layout) {
  for (int lock : owners.lockOnlyAfter[static_cast<size_t>(after + 1)]) {
    PreviewLock& placed = layout->locks[static_cast<size_t>(lock)];
    PreviewEntry entry;
    entry.kind = placed.encodedCode.empty() ? PreviewEntry::kRepeat : PreviewEntry::kUnknown;
    entry.piece = after;
    entry.code = DecodeLockCode(placed.encodedCode);
    entry.locks.push_back(lock);
    placed.entry = static_cast<int>(layout->entries.size());
    layout->entries.push_back(std::move(entry));
  }
}

}  // namespace

PreviewLayout LayOutPreview(const PreviewInput& input) {
  std::vector<std::string> codes = FindLockCodes(input.mergedPage);
  LockOwners owners = FindOwners(input.pieces, codes);
  PreviewLayout layout;
  for (std::string& code : codes) layout.locks.push_back({std::move(code), -1});

  std::vector<int> entryOfPiece(input.pieces.size());
  AddLockOnlyEntries(owners, -1, &layout);
  for (size_t p = 0; p < input.pieces.size(); ++p) {
    entryOfPiece[p] = static_cast<int>(layout.entries.size());
    PreviewEntry entry;
    entry.piece = static_cast<int>(p);
    entry.code = input.pieces[p].code;
    layout.entries.push_back(std::move(entry));
    AddLockOnlyEntries(owners, static_cast<int>(p), &layout);
  }
  for (size_t i = 0; i < layout.locks.size(); ++i) {
    if (owners.piece[i] < 0) continue;
    int entry = entryOfPiece[static_cast<size_t>(owners.piece[i])];
    layout.locks[i].entry = entry;
    layout.entries[static_cast<size_t>(entry)].locks.push_back(static_cast<int>(i));
  }
  return layout;
}

namespace {

// Text escaped for element content and for quoted attribute values alike.
std::string Html(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 8);
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += c;
    }
  }
  return out;
}

// A JSON string literal that can stand inside a script element: besides the
// usual escapes, "<", ">" and "&" are written as \u escapes, and so are the
// line separators U+2028 and U+2029.
std::string Json(std::string_view text) {
  static const char kHex[] = "0123456789abcdef";
  std::string out = "\"";
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    bool separator = c == 0xE2 && i + 2 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0x80 &&
                     (static_cast<unsigned char>(text[i + 2]) & 0xFE) == 0xA8;
    if (separator) {
      out += text[i + 2] == '\xA8' ? "\\u2028" : "\\u2029";
      i += 2;
    } else if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == '<' || c == '>' || c == '&') {
      out += "\\u00";
      out += kHex[c >> 4];
      out += kHex[c & 15];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

// A nonce for the preview's own script: the content policy runs no script
// without it, so even markup that slipped past the escapes could run none.
std::string MakeNonce() {
  static const char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  std::random_device random;
  std::string nonce;
  for (int i = 0; i < 24; ++i) nonce += kDigits[random() % 62];
  return nonce;
}

// What the entry's badge and number say: the piece's number, that number and
// "+" for output that follows it, a dash for code that is no piece's.
std::string EntryLabel(const PreviewInput& input, const PreviewEntry& entry) {
  if (entry.kind == PreviewEntry::kUnknown) return "\u2013";
  std::string number = entry.piece >= 0 ? std::to_string(input.pieces[static_cast<size_t>(entry.piece)].number) : "";
  return entry.kind == PreviewEntry::kRepeat ? number + "+" : number;
}

// What the entry's head says about its output.
std::string EntryState(const PreviewInput& input, const PreviewEntry& entry) {
  switch (entry.kind) {
    case PreviewEntry::kRepeat:
      return "output without code: later passes of a loop, or lost labels";
    case PreviewEntry::kUnknown:
      return "no piece of server code: page content the server left out";
    case PreviewEntry::kPiece:
      break;
  }
  return input.pieces[static_cast<size_t>(entry.piece)].producedOutput ? "produced output" : "no output";
}

// One entry of the panel: its label, line and state, a button per lock, and
// its code as text. The data- attributes are what the script reads.
void AppendEntry(const PreviewInput& input, const PreviewEntry& entry, size_t index, std::string* html) {
  static const char* const kKinds[] = {"piece", "repeat", "unknown"};
  int line = entry.piece >= 0 ? input.pieces[static_cast<size_t>(entry.piece)].line : 0;
  std::string label = EntryLabel(input, entry);
  *html += "<li class=\"qz-entry qz-" + std::string(kKinds[entry.kind]) + "\" tabindex=\"0\" data-entry=\"" +
           std::to_string(index) + "\" data-label=\"" + Html(label) + "\" data-line=\"" + std::to_string(line) +
           "\">\n<div class=\"qz-entry-head\"><span class=\"qz-number\">" + Html(label) + "</span>";
  if (line > 0) *html += "<span class=\"qz-line\">line " + std::to_string(line) + "</span>";
  *html += "<span class=\"qz-state\">" + EntryState(input, entry) + "</span></div>\n<div class=\"qz-chips\">";
  for (int lock : entry.locks)
    *html += "<button type=\"button\" class=\"qz-chip\" data-lock=\"" + std::to_string(lock) + "\">lock " +
             std::to_string(lock + 1) + "</button>";
  if (entry.locks.empty()) *html += "<span class=\"qz-none\">no lock in the merged page</span>";
  *html += "</div>\n";
  if (entry.kind != PreviewEntry::kRepeat) *html += "<pre class=\"qz-code\"><code>" + Html(entry.code) + "</code></pre>\n";
  *html += "</li>\n";
}

// The warnings, each with its line when it has one.
void AppendWarnings(const PreviewInput& input, std::string* html) {
  *html += "<h2>Warnings <span class=\"qz-count\">" + std::to_string(input.warnings.size()) +
           "</span></h2>\n<ul id=\"qz-warnings\">\n";
  for (const PreviewWarning& warning : input.warnings) {
    *html += "<li class=\"qz-warning\" data-line=\"" + std::to_string(warning.line) + "\">";
    if (warning.line > 0) *html += "<span class=\"qz-line\">line " + std::to_string(warning.line) + "</span> ";
    *html += Html(warning.message) + "</li>\n";
  }
  if (input.warnings.empty()) *html += "<li class=\"qz-none\">none</li>\n";
  *html += "</ul>\n";
}

// The title, a key to the colours, and the counts (the script adds how many
// locks it drew).
void AppendHeader(const PreviewInput& input, const PreviewLayout& layout, std::string* html) {
  *html += "<header class=\"qz-header\">\n<h1>Preview of <span class=\"qz-title\">" + Html(input.title) +
           "</span></h1>\n<p class=\"qz-legend\"><span class=\"qz-key-text\">server-produced text</span>"
           "<span class=\"qz-key-lock\"><span class=\"qz-key-badge\">3</span>server output and the number of its "
           "code</span><span id=\"qz-status\">" +
           std::to_string(input.pieces.size()) + " pieces of server code, " + std::to_string(layout.locks.size()) +
           " locks</span></p>\n</header>\n";
}

// The locks in page order, each with its code attribute and entry, for the
// script to pair with the lock elements of the frame.
void AppendLockData(const PreviewLayout& layout, std::string* html) {
  *html += "<script type=\"application/json\" id=\"qz-locks\">[";
  for (size_t i = 0; i < layout.locks.size(); ++i) {
    if (i) *html += ",";
    *html += "{\"code\":" + Json(layout.locks[i].encodedCode) +
             ",\"entry\":" + std::to_string(layout.locks[i].entry) + "}";
  }
  *html += "]</script>\n";
}

}  // namespace

std::string RenderPreview(const PreviewInput& input) {
  PreviewLayout layout = LayOutPreview(input);
  std::string nonce = MakeNonce();
  std::string html;
  html.reserve(input.mergedPage.size() * 2 + 32768);
  // Nothing may be fetched: not by the preview, not by the page in its
  // frame, which inherits this policy.
  html += "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
          "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; script-src 'nonce-" +
          nonce +
          "'; style-src 'unsafe-inline'; img-src data:; font-src data:; base-uri 'none'; form-action 'none'\">\n"
          "<meta name=\"viewport\" content=\"width=device-width\">\n<title>Preview of " +
          Html(input.title) + "</title>\n<style>\n" + kPreviewCss + "</style>\n</head>\n<body>\n";
  AppendHeader(input, layout, &html);
  html += "<main class=\"qz-main\">\n<iframe id=\"qz-page\" title=\"The merged page\" sandbox=\"allow-same-origin\" "
          "srcdoc=\"" +
          Html(input.mergedPage) +
          "\"></iframe>\n<aside class=\"qz-panel\">\n<input id=\"qz-search\" type=\"search\" "
          "placeholder=\"Filter by code, number or line\" aria-label=\"Filter the panel\">\n"
          "<div class=\"qz-panel-list\">\n<h2>Server code <span class=\"qz-count\">" +
          std::to_string(input.pieces.size()) + "</span></h2>\n<ol id=\"qz-entries\">\n";
  for (size_t i = 0; i < layout.entries.size(); ++i) AppendEntry(input, layout.entries[i], i, &html);
  html += "</ol>\n";
  AppendWarnings(input, &html);
  html += "</div>\n</aside>\n</main>\n<template id=\"qz-frame-style\"><style>\n";
  html += kPreviewFrameCss;
  html += "</style></template>\n";
  AppendLockData(layout, &html);
  html += "<script nonce=\"" + nonce + "\">\n" + kPreviewJs + "</script>\n</body>\n</html>\n";
  return html;
}

}  // namespace qzhost
