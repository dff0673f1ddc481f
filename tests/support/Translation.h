// Whole translations as a translator script runs them, for the tests of the
// merge: the pre pass over a page, a stand-in server's answer, the post pass
// over what comes back and endPostTranslate, with helpers that spell the
// markup the merge is expected to write.
#ifndef QZ_TESTS_TRANSLATION_H
#define QZ_TESTS_TRANSLATION_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "FakeHost.h"

using Pairs = std::vector<std::pair<std::u16string, std::u16string>>;

extern const std::u16string kLockBegin, kLockEnd;  // the lock formats the tests give
extern const std::u16string kValue;                // the translated value they give
// The translated-value attribute of a blank server open tag, and the
// highlight attribute of tags in coloured output: the same text here.
extern const std::u16string kHilite;
extern const std::u16string kFailed;  // what a translation that fails gives

std::u16string Font(const std::u16string& run);
// The attribute a labelled tag gets with this record.
std::u16string TagAttr(const std::u16string& record);
std::u16string Lock(const std::u16string& code, const std::u16string& output, bool bInvisible = true);
// A server that replaces every occurrence of each text in the labelled
// page, in order; an empty text to replace stands for the whole page.
std::u16string Serve(std::u16string page, const Pairs& server);
Pairs Answer(const std::u16string& output);

class TranslationTest : public LibraryTest {
 protected:
  // Whatever a test did, failures included, the next page translates.
  void TearDown() override;
  qzhost::CallResult Call(const std::string& name, std::vector<Value> args) { return host.Call(name, std::move(args)); }
  // initialize, the pre pass over the page and endPreTranslate, stopping
  // where a translator script would: the labelled page, or kFailed.
  std::u16string Label(const std::u16string& page);
  // endPostTranslate: the merged page, or kFailed with the result untouched.
  std::u16string End(const std::u16string& page, const std::u16string& output);
  // The pre pass over the page, the server's answer, the post pass over
  // what the host's scanner reports (the answer unless given) and the merge
  // of a page text (the page unless given) with the answer. The merged page
  // or kFailed; cleanup is left to the next initialize.
  std::u16string Translate(const std::u16string& page, const Pairs& server = {},
                           const std::optional<std::u16string>& scanned = {},
                           const std::optional<std::u16string>& origText = {});

  std::u16string lockBegin_ = kLockBegin;
  int lockEmpty_ = -1;  // -1: five arguments
};

#endif
