// Pages the benchmarks translate, made to a size: a realistic PHP page and
// the hostile shapes that once made passes quadratic. Also a stand-in for a
// server, so that a translation can run without one.
#ifndef QZBENCH_PAGES_H
#define QZBENCH_PAGES_H

#include <cstddef>
#include <string>
#include <vector>

#include "Profile.h"

namespace qzbench {

// A shape of page; MakePage writes one of about `units` code units.
enum class Shape {
  kRealistic,   // a table of rows, each with a directive, a server-computed attribute and plain text
  kUnclosed,    // open tags never closed
  kNested,      // one element nested as deep as the page allows, a directive at the bottom
  kStrayClose,  // close tags, each of its own name, that no open tag matches, under unclosed ones
  kPieces,      // many small pieces of server code
  kAttrCode,    // ordinary tags whose attributes hold server code
  kHashRuns,    // a server block whose text is one long run of "#("
};

struct ShapeInfo {
  Shape shape;
  const char* name;
};

// Every shape, the realistic one first.
const std::vector<ShapeInfo>& Shapes();

std::u16string MakePage(Shape shape, size_t units);

// The php profile with "zboutput" among the server-tag prefixes, so that
// the "#(" runs inside a zboutput block reach the expression search.
const qzhost::Profile& BenchProfile();

// What a PHP server makes of a labelled page, roughly: every "<?" .. "?>"
// block is replaced by a short value; everything else is printed as it
// stands, labels included.
std::u16string StandInServer(const std::u16string& labelled);

// UTF-8 of an ASCII page (every page made here is ASCII).
std::string AsciiBytes(const std::u16string& page);

}  // namespace qzbench

#endif
