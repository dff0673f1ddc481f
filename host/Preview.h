// The preview: one self-contained HTML file that shows a merged page as a
// browser renders it, with every lock outlined and numbered, and beside it a
// panel of the page's server code. Its input is plain data, so that whatever
// knows the pieces of server code (the labels today) can feed it.
//
// Everything taken from the page, its code or its warnings is escaped where
// it goes; the merged page is rendered in a sandboxed frame that may not run
// script, and the file's content policy lets neither frame load anything.
#ifndef QZHOST_PREVIEW_H
#define QZHOST_PREVIEW_H

#include <string>
#include <string_view>
#include <vector>

namespace qzhost {

// One piece of server code of the source page.
struct PreviewPiece {
  int number = 0;               // shown in the panel and on the piece's locks
  int line = 0;                 // line of the source page where the code starts (from 1)
  std::string code;             // the code as written in the page, UTF-8
  bool producedOutput = false;  // whether the server gave back anything for it
};

struct PreviewWarning {
  int line = 0;  // line of the source page, or 0 when none applies
  std::string message;
};

struct PreviewInput {
  std::string title;                      // usually the page's file name
  std::string mergedPage;                 // UTF-8
  std::vector<PreviewPiece> pieces;       // in page order
  std::vector<PreviewWarning> warnings;
};

// How the panel ties the merged page's locks to the pieces.
//
// Locks are taken in the order they stand in the merged page. A lock whose
// code is not empty goes to the first piece after the last one matched whose
// code (line ends made LF) is the lock's decoded code; failing that, to the
// nearest such piece at or before it, as when output comes back; failing
// that, to an entry of its own: the library also locks page content that the
// server left out (the false branch of an if), with that content as code. A lock with an empty code
// holds the later passes of a loop, or output whose labels were lost: it gets
// an entry of its own, placed after the piece of the last lock matched before
// it and carrying that piece's number and line.
struct PreviewEntry {
  // kPiece: a piece of the input. kRepeat: a lock with an empty code.
  // kUnknown: a lock whose code is no piece's.
  enum Kind { kPiece, kRepeat, kUnknown };
  Kind kind = kPiece;
  int piece = -1;            // index into the input's pieces: the piece (kPiece) or the one it follows
  std::string code;          // decoded; empty for kRepeat
  std::vector<int> locks;    // indices into PreviewLayout::locks
};

struct PreviewLock {
  std::string encodedCode;  // the code attribute as written in the merged page
  int entry = -1;           // index into PreviewLayout::entries
};

struct PreviewLayout {
  std::vector<PreviewEntry> entries;  // the panel's order: pieces in page order, lock-only entries after their piece
  std::vector<PreviewLock> locks;     // in merged-page order
};

// Finds the locks of the merged page and matches them to the pieces, as
// described above. Every piece gets an entry, with or without locks.
PreviewLayout LayOutPreview(const PreviewInput& input);

// The code of a lock's code attribute decoded: each %XX becomes that byte;
// anything else is kept as it is.
std::string DecodeLockCode(std::string_view encoded);

// The whole preview file, UTF-8. Cannot fail.
std::string RenderPreview(const PreviewInput& input);

}  // namespace qzhost

#endif
