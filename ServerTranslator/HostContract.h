// The contract between the library and the host that loads it, written once
// for both sides and their tests: the slots of the host's operation table,
// the engine's true value, the fifteen script functions with the argument
// counts they are registered with, and the label texts that the library
// writes into a page and reads back from the server's output. Header-only
// and free of the library's internals, so that a host can include it alone.
#ifndef QZ_HOST_CONTRACT_H
#define QZ_HOST_CONTRACT_H

#include <cstddef>
#include <cstdint>

// A script value: one 64-bit word in the engine's own encoding.
typedef uint64_t ScriptValue;

// The one value the library makes itself: the engine's boolean true.
inline constexpr ScriptValue kScriptTrue = 14;

// A native script function: (context, this object, argument count, argument
// values, result) -> nonzero on success.
typedef int (*Native)(void* cx, void* thisObj, uint32_t argc, ScriptValue* argv, ScriptValue* rval);

// Slots of the host's operation table; the others are never used.
enum HostSlot : int {
  kSlotLibraryObject = 0,
  kSlotDefineFunction = 1,
  kSlotValueToInteger = 3,
  kSlotValueToBoolean = 5,
  kSlotValueToObject = 6,
  kSlotClassName = 9,
  kSlotArrayLength = 11,
  kSlotArrayElement = 12,
  kSlotValueToString = 17,
  kSlotStringToValue = 18,
  kHostSlotCount = 46
};

// The script functions in the order of registration, each with the argument
// count handed to the host's define operation (which is not always the count
// the function accepts).
enum ScriptFunctionId : int {
  kFnInitialize,
  kFnBeginPreTranslate,
  kFnEndPreTranslate,
  kFnSetLineEndingsToMatch,
  kFnReplaceTextInsideTag,
  kFnBeginPostTranslate,
  kFnEndPostTranslate,
  kFnCleanup,
  kFnDirective,
  kFnOpenTagBegin,
  kFnOpenTagEnd,
  kFnAttribute,
  kFnCloseTagBegin,
  kFnCloseTagEnd,
  kFnText,
  kScriptFunctionCount
};

struct ScriptFunctionName {
  const char* name;
  int nargs;
};

inline constexpr ScriptFunctionName kScriptFunctionNames[kScriptFunctionCount] = {
    {"initialize", 0},   {"beginPreTranslate", 2},  {"endPreTranslate", 1},    {"setLineEndingsToMatch", 2},
    {"replaceTextInsideTag", 4}, {"beginPostTranslate", 0}, {"endPostTranslate", 2}, {"cleanup", 0},
    {"directive", 2},    {"openTagBegin", 2},       {"openTagEnd", 2},         {"attribute", 2},
    {"closeTagBegin", 2}, {"closeTagEnd", 1},       {"text", 2},
};

// Labels. A label comment is written with kLabelCommentFormat and read back
// from a directive that kLabelCommentScan scans one number from; a label
// attribute is written with kLabelAttrFormat right after a tag's name, read
// back as the attribute named kLabelAttrName, and cut from the server's
// output where kLabelAttrLead stands. Both formats take the label's number.
inline constexpr char16_t kLabelCommentFormat[] = u"<!--QZVX %d -->";
inline constexpr char16_t kLabelCommentScan[] = u"<!--QZVX %d";
inline constexpr char16_t kLabelAttrFormat[] = u" qzvx=\"%d\" ";
inline constexpr char16_t kLabelAttrName[] = u"qzvx";
inline constexpr char16_t kLabelAttrLead[] = u" qzvx=";

// The same labels in pieces, for a host that writes or finds them without a
// formatter: a label is its head, the number in decimal, then its tail. The
// checks below keep the pieces and the formats in step.
inline constexpr char16_t kLabelCommentHead[] = u"<!--QZVX ";
// What a directive must begin with, exactly, to be read as a label comment.
inline constexpr char16_t kLabelCommentLead[] = u"<!--QZVX";
inline constexpr char16_t kLabelCommentTail[] = u" -->";
inline constexpr char16_t kLabelAttrHead[] = u" qzvx=\"";
inline constexpr char16_t kLabelAttrTail[] = u"\" ";
// The attribute the merge gives tags that came back from the server, and
// server tags that printed nothing.
inline constexpr char16_t kTranslatedValueAttr[] = u"qzTranslatedValue";

namespace qzcontract {
template <size_t nFormat, size_t nHead, size_t nTail>
constexpr bool SplitsAtNumber(const char16_t (&format)[nFormat], const char16_t (&head)[nHead],
                              const char16_t (&tail)[nTail]) {
  if (nFormat != nHead + nTail + 1) return false;
  for (size_t k = 0; k + 1 < nHead; ++k)
    if (format[k] != head[k]) return false;
  if (format[nHead - 1] != u'%' || format[nHead] != u'd') return false;
  for (size_t k = 0; k < nTail; ++k)
    if (format[nHead + 1 + k] != tail[k]) return false;
  return true;
}
}  // namespace qzcontract

static_assert(qzcontract::SplitsAtNumber(kLabelCommentFormat, kLabelCommentHead, kLabelCommentTail));
static_assert(qzcontract::SplitsAtNumber(kLabelAttrFormat, kLabelAttrHead, kLabelAttrTail));

#endif
