// After the merge: server code that the merge wrote a tag's translated-value
// attribute into. The library ends a tag's name only at ">" or white space,
// so a server block written against a name (`<style<?= $t ?>>`) becomes part
// of that name; when the tag keeps its own form in the merged page (its code
// printed nothing) the attribute lands inside the block and cuts its code.
// The library's rule stays as it is; the command says so instead of writing
// the damaged code without a word.
#ifndef QZHOST_MERGEDCHECK_H
#define QZHOST_MERGEDCHECK_H

#include <string_view>
#include <vector>

#include "LabelCheck.h"

namespace qzhost {

// One warning (Finding::kCodeCut) for each server block ("<?" .. "?>",
// "<%" .. "%>") of the merged page that holds the translated-value
// attribute, with the page line of its tag when the tag is found in the
// page. Linear in both texts.
std::vector<LabelWarning> CheckMergedCode(std::u16string_view page, std::u16string_view merged);

}  // namespace qzhost

#endif
