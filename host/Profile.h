// Profiles: the settings that make the translator sequence fit one kind of
// server page (php, erb, asp), and how a page's name picks one.
#ifndef QZHOST_PROFILE_H
#define QZHOST_PROFILE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "EncodingDeclaration.h"

namespace qzhost {

// Settings for one kind of server page.
struct Profile {
  std::string name;
  std::vector<std::string> extensions;  // file extensions that pick it, without the dot
  std::string serverCommand;            // run in the page's folder; empty: no server of our own
  ServerDeclaration encodingDeclaration = ServerDeclaration::kNone;  // how its server reads a page's encoding

  // Pre-pass settings (the arguments of beginPreTranslate).
  std::u16string directiveStart;
  std::u16string directiveEnd;
  std::vector<std::u16string> tagPrefixes;   // name prefixes of server tags
  std::vector<std::u16string> nonHtmlTags;   // server tags whose content is not HTML
  bool attributeRules = false;               // pass the three rule lists (7 arguments)
  std::vector<std::u16string> ruleNames;     // attribute name that makes a tag a server tag
  std::vector<std::u16string> ruleValues;    // ... with this value
  std::vector<int64_t> ruleNonHtml;          // ... and nonzero: its content is not HTML
  // The server runs a block left open at the end of the page as code up to
  // the end (PHP does), so it must get the block closed before the page's
  // last label; false where the server prints such a block as text (ERB).
  bool openBlockIsCode = false;

  // Merge settings (the arguments of endPostTranslate).
  std::u16string lockBeginFormat;            // one %s, which receives the URL-encoded server code
  std::u16string lockEndText;
  std::u16string translatedValue;            // qzTranslatedValue of a server tag with no output
  int lockEmptyPrefixedTags = -1;            // -1: not passed; 0 or 1: passed as a boolean
};

// The lock markup every profile uses: an element of the qz namespace whose
// code attribute carries the URL-encoded server code.
inline constexpr char16_t kLockBeginFormat[] = u"<qz:lock code=\"%s\">";
inline constexpr char16_t kLockEndText[] = u"</qz:lock>";
inline constexpr char16_t kTranslatedValue[] = u"hilitecolor=%22Dyn%20Up-to-Date%20Color%22";

const std::vector<Profile>& Profiles();
// The profile of that name, letter case ignored, or null.
const Profile* FindProfile(std::string_view name);
// The profile whose extensions include the path's (case-insensitive), or null.
const Profile* ProfileForPath(std::string_view path);

}  // namespace qzhost

#endif
