#include "Lines.h"

#include <algorithm>

namespace qzhost {

size_t LineOfUnit(std::u16string_view text, size_t offset) {
  std::u16string_view before = text.substr(0, std::min(offset, text.size()));
  return 1 + static_cast<size_t>(std::count(before.begin(), before.end(), u'\n'));
}

}  // namespace qzhost
