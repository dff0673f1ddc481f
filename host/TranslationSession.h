// One page's translation session: what a translator script does with the
// library's script functions for one page, from initialize to cleanup.
#ifndef QZHOST_TRANSLATIONSESSION_H
#define QZHOST_TRANSLATIONSESSION_H

#include <string>
#include <string_view>
#include <vector>

#include "Engine.h"
#include "Profile.h"

namespace qzhost {

// Start calls initialize, the destructor cleanup; Label runs the pre pass
// over the page and Merge the post pass over the server's output for the
// labelled page, which needs the label places of the Label before it (so no
// other session may run in between). Every call into the library is
// checked; a failure message names the script function that failed and, for
// scanner callbacks, the offset of the item it was given.
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
  std::vector<Value> PreSettings();
  bool Scan(std::u16string_view text, const char* what, bool prePass, std::string* error);

  Engine& engine_;
  const Profile& profile_;
  bool started_ = false;
  bool labelled_ = false;
  std::u16string page_;
  std::u16string labelledPage_;
  std::vector<std::string> warnings_;
};

}  // namespace qzhost

#endif
