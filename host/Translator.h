// Profiles and the translator sequence: what a translator script does with
// the library's script functions for one page.
#ifndef QZHOST_TRANSLATOR_H
#define QZHOST_TRANSLATOR_H

#include <string>
#include <string_view>
#include <vector>

#include "Engine.h"

namespace qzhost {

// Settings for one kind of server page.
struct Profile {
  std::string name;
  std::vector<std::string> extensions;  // file extensions that pick it, without the dot
  std::string serverCommand;            // run in the page's folder; empty: no server of our own

  // Pre-pass settings (the arguments of beginPreTranslate).
  std::u16string directiveStart;
  std::u16string directiveEnd;
  std::vector<std::u16string> tagPrefixes;   // name prefixes of server tags
  std::vector<std::u16string> nonHtmlTags;   // server tags whose content is not HTML
  bool attributeRules = false;               // pass the three rule lists (7 arguments)
  std::vector<std::u16string> ruleNames;     // attribute name that makes a tag a server tag
  std::vector<std::u16string> ruleValues;    // ... with this value
  std::vector<int64_t> ruleNonHtml;          // ... and nonzero: its content is not HTML

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
// The profile of that name, or null.
const Profile* FindProfile(std::string_view name);
// The profile whose extensions include the path's (case-insensitive), or null.
const Profile* ProfileForPath(std::string_view path);

// One page's translation session. Start calls initialize, the destructor
// cleanup; Label runs the pre pass over the page and Merge the post pass
// over the server's output for the labelled page, which needs the label
// places of the Label before it (so no other session may run in between).
// Every call into the library is checked; a failure message names the
// script function that failed and, for scanner callbacks, the offset of the
// item it was given.
class TranslationSession {
 public:
  TranslationSession(Engine& engine, const Profile& profile);
  ~TranslationSession();
  TranslationSession(const TranslationSession&) = delete;
  TranslationSession& operator=(const TranslationSession&) = delete;

  bool Start(std::string* error);
  bool Label(std::u16string_view page, std::u16string* labelled, std::string* error);
  bool Merge(std::u16string_view output, std::u16string* merged, std::string* error);
  // What the last Label found cut off by the end of the page, one message
  // per construct ("line 3: ..."); the page is translated all the same.
  const std::vector<std::string>& Warnings() const { return warnings_; }

 private:
  bool Call(const char* name, std::vector<Value> args, Value* result, std::string* error);
  Value StrArray(const std::vector<std::u16string>& texts);

  Engine& engine_;
  const Profile& profile_;
  bool started_ = false;
  bool labelled_ = false;
  std::u16string page_;
  std::u16string labelledPage_;
  std::vector<std::string> warnings_;
};

// A guess at why the library refused to merge output, from the labels in the
// labelled page and in the output; empty when no reason can be told.
std::string ExplainRejectedMerge(std::u16string_view labelled, std::u16string_view output);

}  // namespace qzhost

#endif
