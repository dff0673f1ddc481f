// The stand-in host's script engine: a value model and the table of engine
// operations that a host hands to the extension's entry function.
//
// Values are 64-bit words: 0 is null, 14 is true, 6 is false; every other
// value is the address of a cell that the engine owns (a string, an integer
// or an array). Cells live as long as the engine, so texts handed to the
// library stay valid for the whole call and after it.
#ifndef QZHOST_ENGINE_H
#define QZHOST_ENGINE_H

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "HostContract.h"

namespace qzhost {

using Value = ScriptValue;
using NativeFn = Native;

constexpr Value kNull = 0;
constexpr Value kTrue = kScriptTrue;
constexpr Value kFalse = 6;
constexpr size_t kTableSlots = kHostSlotCount;

struct Registration {
  std::string name;
  NativeFn fn;
  int nargs;
};

// Outcome of calling a native: its return and the result value it left.
struct CallResult {
  int ok;
  Value result;
};

class Engine {
 public:
  Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  Value Str(std::u16string text);
  Value Int(int64_t n);

  // A string value over text itself, not a copy: the caller keeps text
  // alive and unchanged for as long as the value is in use. Handing a
  // whole page to the library this way copies nothing.
  Value View(const std::u16string& text);

  // Argument values for calls the host makes over and over (the scanner
  // callbacks): slot k is one cell, reused by every call, so that a scan
  // makes no value per item. A text is copied, into storage the slot keeps,
  // only when the library asks for it. A slot's value is valid until the
  // slot is set again.
  static constexpr size_t kArgSlots = 2;
  // bEnded: a NUL follows text (for as long as the value is in use), so the
  // library reads it where it stands.
  Value ArgText(size_t slot, std::u16string_view text, bool bEnded = false);
  Value ArgInt(size_t slot, int64_t n);

  // Moves the text of a string value out (a view's text is copied); the
  // value holds the empty string afterwards.
  std::u16string Take(Value v);
  static Value Bool(bool b) { return b ? kTrue : kFalse; }
  Value Array(std::vector<Value> elements);

  bool IsString(Value v) const;
  // Text of a value as the engine converts it (numbers in decimal, arrays
  // joined with ",", null as "null", booleans as "true"/"false").
  std::u16string ToText(Value v);

  // The operation table, every slot filled. Callers may clear slots of a
  // copy to play a host that lacks an operation.
  std::array<void*, kTableSlots> Table();

  // Registrations made through the define-function operation, in order.
  const std::vector<Registration>& Registrations() const { return registrations_; }
  NativeFn Find(const std::string& name) const;

  // Calls a registered native with the given arguments; the result value
  // starts as `initial` so a caller can tell whether the native set it.
  CallResult Call(const std::string& name, std::vector<Value> args, Value initial = kNull);

  // A point in the engine's life: cells and conversions made after it can be
  // dropped with Release once no native holds their texts any more (natives
  // keep no host text past their call), so a long scan does not pile them up.
  struct Mark {
    size_t cells;
    size_t conversions;
  };
  Mark Save() const { return {nCells_, nConversions_}; }
  // Drops what was made after the mark; values made since then are invalid.
  // Nothing made since costs two comparisons: a scan releases after every
  // item.
  void Release(Mark mark) {
    if (nCells_ > mark.cells || nConversions_ > mark.conversions) Drop(mark);
  }

  // Value the define-function operation returns for the n-th registration.
  static intptr_t DefineResult(size_t n) { return static_cast<intptr_t>(1000 + n); }

 private:
  enum class Kind { String, Int, Array, Bool };
  struct Cell {
    Kind kind = Kind::String;
    int64_t number = 0;
    std::u16string text;           // the string, or a cached conversion
    std::u16string_view view;      // bView: the string, owned by someone else
    bool bView = false;
    bool bViewEnded = false;       // view is followed by a NUL that the library may rely on
    std::vector<Value> elements;
    const char* className = "";
  };

  void Drop(Mark mark);
  Cell* CellOf(Value v) const;
  Value Make(Cell cell);
  static std::u16string_view TextOf(const Cell& c) { return c.bView ? c.view : std::u16string_view(c.text); }
  static const char16_t* EndedText(Cell* c);

  std::deque<Cell> cells_;
  std::deque<std::u16string> conversions_;
  size_t nCells_ = 0, nConversions_ = 0;  // the sizes of the two, kept at hand
  Cell trueCell_, falseCell_;
  std::array<Cell, kArgSlots> argTexts_, argInts_;
  std::vector<Registration> registrations_;

  friend struct EngineOps;
};

}  // namespace qzhost

#endif
