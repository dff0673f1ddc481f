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
  Mark Save() const { return {cells_.size(), conversions_.size()}; }
  // Drops what was made after the mark; values made since then are invalid.
  void Release(Mark mark);

  // Value the define-function operation returns for the n-th registration.
  static intptr_t DefineResult(size_t n) { return static_cast<intptr_t>(1000 + n); }

 private:
  enum class Kind { String, Int, Array, Bool };
  struct Cell {
    Kind kind = Kind::String;
    int64_t number = 0;
    std::u16string text;           // the string, or a cached conversion
    std::vector<Value> elements;
    const char* className = "";
  };

  Cell* CellOf(Value v) const;
  Value Make(Cell cell);

  std::deque<Cell> cells_;
  std::deque<std::u16string> conversions_;
  Cell trueCell_, falseCell_;
  std::vector<Registration> registrations_;

  friend struct EngineOps;
};

}  // namespace qzhost

#endif
