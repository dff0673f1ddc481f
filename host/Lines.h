// Line numbers of places in a text, for messages.
#ifndef QZHOST_LINES_H
#define QZHOST_LINES_H

#include <cstddef>
#include <string_view>

namespace qzhost {

// Line (from 1) of the unit at offset: one more than the line feeds before
// it. An offset past the end counts the whole text.
size_t LineOfUnit(std::u16string_view text, size_t offset);

// Lines of many places in one text: linear in the text as long as the
// offsets asked for do not go back (going back starts over).
class LineCursor {
 public:
  explicit LineCursor(std::u16string_view text) : text_(text) {}
  size_t LineAt(size_t offset);

 private:
  std::u16string_view text_;
  size_t pos_ = 0;   // every line feed before it is counted in line_
  size_t line_ = 1;
};

}  // namespace qzhost

#endif
