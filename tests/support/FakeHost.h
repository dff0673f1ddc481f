// A host for driving the library's natives from tests: the stand-in engine's
// value model and operation table, installed through the entry function.
#ifndef QZ_TESTS_FAKE_HOST_H
#define QZ_TESTS_FAKE_HOST_H

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "Engine.h"
#include "IntArray.h"

using qzhost::Value;
using Ints = std::vector<int32_t>;

// The elements of an array in use.
inline Ints Items(const IntArray& a) { return Ints(a.pData, a.pData + a.nSize); }

class FakeHost {
 public:
  FakeHost();

  // Installs the current table (all slots filled unless cleared) into the
  // library and registers the natives again.
  void Install();
  // Empties one slot and installs the table again: a host without that
  // operation.
  void ClearSlot(int slot);

  Value Str(const std::u16string& text) { return engine.Str(text); }
  Value Int(int64_t n) { return engine.Int(n); }
  Value StrArray(const std::vector<std::u16string>& texts);
  Value IntArray(const std::vector<int64_t>& numbers);

  // Calls a native by script name. The result value starts as kUnset.
  qzhost::CallResult Call(const std::string& name, std::vector<Value> args);
  // Text of a string value.
  std::u16string Text(Value v) { return engine.ToText(v); }

  static constexpr Value kUnset = 0x7777;  // never a value the engine makes
  // A value every conversion of this host refuses (no text, no number, no
  // truth value, no object), as a host may for a value it cannot convert.
  static constexpr Value kRefused = 0x5555;

  qzhost::Engine engine;
  std::array<void*, qzhost::kTableSlots> table;
};

// Releases every bit of process-wide state the library holds, so that a test
// can check that nothing else is left allocated.
void ReleaseLibraryState();

// Fixture: a fresh host per test, allocation failures off; at the end all
// library state is released and the test fails if the library still holds
// a block (FaultAllocator counts them).
class LibraryTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  FakeHost host;
};

#endif
