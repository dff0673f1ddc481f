#include "Lines.h"

#include <algorithm>

namespace qzhost {

size_t LineOfUnit(std::u16string_view text, size_t offset) {
  std::u16string_view before = text.substr(0, std::min(offset, text.size()));
  return 1 + static_cast<size_t>(std::count(before.begin(), before.end(), u'\n'));
}

size_t LineCursor::LineAt(size_t offset) {
  offset = std::min(offset, text_.size());
  if (offset < pos_) {
    pos_ = 0;
    line_ = 1;
  }
  for (; pos_ < offset; ++pos_)
    if (text_[pos_] == u'\n') ++line_;
  return line_;
}

}  // namespace qzhost
