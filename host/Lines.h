// Line numbers of places in a text, for messages.
#ifndef QZHOST_LINES_H
#define QZHOST_LINES_H

#include <cstddef>
#include <string_view>

namespace qzhost {

// Line (from 1) of the unit at offset: one more than the line feeds before
// it. An offset past the end counts the whole text.
size_t LineOfUnit(std::u16string_view text, size_t offset);

}  // namespace qzhost

#endif
