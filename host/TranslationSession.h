// One page's translation session: what a translator script does with the
// library's script functions for one page, from initialize to cleanup.
#ifndef QZHOST_TRANSLATIONSESSION_H
#define QZHOST_TRANSLATIONSESSION_H

#include <string>
#include <string_view>
#include <vector>

#include "Engine.h"
#include "LabelCheck.h"
#include "PageEnd.h"
#include "Profile.h"
#include "Scanner.h"

namespace qzhost {

// Start calls initialize, the destructor cleanup; Label runs the pre pass
// over the page and Merge the post pass over the server's output for the
// labelled page, which needs the label places of the Label before it (so no
// other session may run in between). Every call into the library is
// checked; a failure message names the script function that failed and, for
// scanner callbacks, the offset of the item it was given.
//
// A page that ends inside a directive is labelled as PageEnd.h describes.
// When the labelled page carries closing text before its last label, a
// server output that hands it back unchanged (a server that leaves the
// piece as it is) has it taken out again before the check and the merge.
class TranslationSession {
 public:
  TranslationSession(Engine& engine, const Profile& profile);
  ~TranslationSession();
  TranslationSession(const TranslationSession&) = delete;
  TranslationSession& operator=(const TranslationSession&) = delete;

  bool Start(std::string* error);
  bool Label(std::u16string_view page, std::u16string* labelled, std::string* error);
  bool Merge(std::u16string_view output, std::u16string* merged, std::string* error);
  // The same, taking the text over instead of copying it: a caller that no
  // longer needs it saves a copy of the page or of the output.
  bool Label(std::u16string&& page, std::u16string* labelled, std::string* error);
  bool Merge(std::u16string&& output, std::u16string* merged, std::string* error);
  // A literal picks neither of the two above over the other.
  bool Label(const char16_t* page, std::u16string* labelled, std::string* error) {
    return Label(std::u16string_view(page), labelled, error);
  }
  bool Merge(const char16_t* output, std::u16string* merged, std::string* error) {
    return Merge(std::u16string_view(output), merged, error);
  }
  // Holds the server's output for the labelled page against its labels
  // (LabelCheck.h). When the labels could not be found in the labelled page
  // the report holds one kNoLabels warning that says the check was not made.
  LabelReport Check(std::u16string_view output) const;
  // What the last Label found cut off by the end of the page, one warning
  // per construct; the page is translated all the same.
  const std::vector<LabelWarning>& Warnings() const { return warnings_; }
  // The page of the last Label, as the session holds it.
  std::u16string_view Page() const { return page_; }
  // The page line of the first of the page offsets (in ascending order)
  // that lies in server code of the last labelled page: in a piece the
  // library labelled, or in a server block of the profile, which may stand
  // in an attribute value where no label holds it. 0 when none does.
  size_t ServerCodeLine(const std::vector<size_t>& offsets) const;

 private:
  bool Call(const char* name, std::vector<Value> args, Value* result, std::string* error);
  Value StrArray(const std::vector<std::u16string>& texts);
  std::vector<Value> PreSettings();
  bool Scan(std::u16string& text, const char* what, bool prePass, std::string* error);
  void CloseOpenEnd(std::u16string_view page, int32_t offset, const OpenEnd& open, std::u16string* labelled);
  void DescribeCuts(std::u16string_view page);
  std::u16string_view Unclosed(std::u16string_view output, std::u16string* buffer) const;
  std::u16string LastLabelApart() const;
  std::u16string LabelledPage() const;

  Engine& engine_;
  const Profile& profile_;
  bool started_ = false;
  bool labelled_ = false;
  std::u16string page_;
  std::u16string labelledPage_;  // only while the label places are unknown (located_ false)
  std::vector<LabelWarning> warnings_;
  // Of the last scan of a page: what its end cut off, and the open directive.
  std::vector<std::pair<Unfinished, int32_t>> cuts_;
  bool hasOpenEnd_ = false;
  OpenEnd openEnd_;
  bool openEndLabelled_ = false;  // the library made the open directive a piece: the last label follows it
  bool closedOpenEnd_ = false;    // the closing text went into the labelled page
  std::u16string echoedEnd_;      // the closing text and the last label, as the labelled page ends
  bool located_ = false;
  LabelPlaces places_;
};

}  // namespace qzhost

#endif
