// The label check: before a merge, the server's output is held against the
// labels the library put into the page, so that no server code goes missing
// from the merged page without a word. The result is plain data: every piece
// of server code and every labelled tag with what became of it, and the
// warnings, each with the page line it is about.
//
// What a correct output looks like follows from how a server runs a page:
// the page text between two pieces of server code is printed as it stands,
// so after the closing label of a piece comes the opening label of the next
// one; only server code can go elsewhere (a loop back, a branch not taken, a
// function whose body is page text), so after an opening label may come the
// closing label of any piece. A run that ends inside server code (an exit, a
// fatal error) ends after an opening label.
//
// The check reads the page, the label places and the output a bounded number
// of times each: it is linear in their sizes.
#ifndef QZHOST_LABELCHECK_H
#define QZHOST_LABELCHECK_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qzhost {

// Where the library put its labels: label comment n stands before page unit
// comments[n], label attribute n before page unit attributes[n].
struct LabelPlaces {
  std::vector<size_t> comments;
  std::vector<size_t> attributes;
};

// Finds the places by walking the page and the labelled page side by side.
// False when the labelled page is not the page with labels numbered from 0
// put into it (also when the page itself holds the text of the next label
// right where a label was put, which cannot be told apart).
bool LocateLabels(std::u16string_view page, std::u16string_view labelled, LabelPlaces* places);

enum class Finding {
  kNoOutput,        // the server printed nothing
  kNoLabels,        // none of the page's labels came back
  kUnknownLabel,    // a label whose number the page was never given
  kMalformedLabel,  // a label written otherwise than it was put, or where the library cannot see it
  kMovedLabel,      // a label attribute that is not where it was put
  kOutOfOrder,      // labels in an order no run of the page prints
  kCutOff,          // the output stops before the page's last label
  kNeverClosed,     // a piece the page itself never ends: an element whose content is not HTML left open
  kCodeMissing,     // server code the merged page would not hold
  // Found in the page itself when it is labelled:
  kOpenAtEnd,       // a construct the end of the page cuts off, translated all the same
  kNotLabelled,     // server code in a construct the end of the page cuts off, which no label can hold
};

// True for the findings that mean server code or labels go wrong; all but
// kOpenAtEnd, which only tells what the host did.
inline bool IsFault(Finding kind) { return kind != Finding::kOpenAtEnd; }

struct LabelWarning {
  Finding kind;
  size_t pageLine = 0;    // the line of the page it is about; 0: none
  size_t outputLine = 0;  // the line of the server's output it is about; 0: none
  std::string message;
};

// One piece of server code: the page between an opening label (even) and
// its closing label (the next number).
struct CheckedPiece {
  int32_t openLabel = 0;
  int32_t closeLabel = -1;  // -1: the page gave it none (an element whose content is not HTML left open)
  size_t begin = 0, end = 0;  // its code is the page's units [begin, end)
  size_t line = 0;            // the page line where it begins
  std::u16string code;
  int timesBack = 0;            // how often its opening label came back
  bool producedOutput = false;  // something other than white space followed its opening label
  bool codeKept = false;        // the merged page would hold its code
};

// What the server printed after one return of a piece's opening label: the
// output's units [begin, end), up to the next label comment.
struct PieceOutput {
  size_t piece;  // index into LabelReport::pieces
  size_t begin, end;
};

// A tag of the page that got a label attribute (an ordinary tag with
// attributes, which may hold server code).
struct CheckedTag {
  int32_t label = 0;
  size_t begin = 0, end = 0;  // the tag in the page: its "<" up to past its ">"
  size_t line = 0;
  bool holdsServerCode = false;  // its attributes hold the profile's directive start
  int timesBack = 0;
  bool codeKept = false;  // the merged page would hold its source attributes
};

struct LabelReport {
  std::vector<CheckedPiece> pieces;
  std::vector<CheckedTag> tags;
  std::vector<PieceOutput> outputs;  // in the order of the output
  std::vector<LabelWarning> warnings;
};

// Checks the server's output for the page labelled at places; directiveStart
// (the profile's) tells which tags hold server code. lastLabel, when given,
// is scanned apart as the merge scans it (ScanOutput in PageEnd.h).
LabelReport CheckLabels(std::u16string_view page, const LabelPlaces& places, std::u16string_view output,
                        std::u16string_view directiveStart, std::u16string_view lastLabel = {});

}  // namespace qzhost

#endif
