#include "FakeHost.h"

#include "FaultAllocator.h"
#include "HiliteColor.h"
#include "Main.h"
#include "Memory.h"
#include "Pre.h"
#include "Session.h"

namespace {

// The engine's own conversions, behind wrappers that refuse kRefused.
ValueToStringOp gToString;
ValueToIntegerOp gToInteger;
ValueToBooleanOp gToBoolean;
ValueToObjectOp gToObject;

const char16_t* ToString(void* cx, ScriptValue v, int32_t* pLength) {
  return v == FakeHost::kRefused ? nullptr : gToString(cx, v, pLength);
}
int ToInteger(void* cx, ScriptValue v, intptr_t* pOut) { return v == FakeHost::kRefused ? 0 : gToInteger(cx, v, pOut); }
int ToBoolean(void* cx, ScriptValue v, int32_t* pOut) { return v == FakeHost::kRefused ? 0 : gToBoolean(cx, v, pOut); }
int ToObject(void* cx, ScriptValue v, void** pOut) { return v == FakeHost::kRefused ? 0 : gToObject(cx, v, pOut); }

}  // namespace

FakeHost::FakeHost() : table(engine.Table()) {
  gToString = reinterpret_cast<ValueToStringOp>(table[kSlotValueToString]);
  gToInteger = reinterpret_cast<ValueToIntegerOp>(table[kSlotValueToInteger]);
  gToBoolean = reinterpret_cast<ValueToBooleanOp>(table[kSlotValueToBoolean]);
  gToObject = reinterpret_cast<ValueToObjectOp>(table[kSlotValueToObject]);
  table[kSlotValueToString] = reinterpret_cast<void*>(&ToString);
  table[kSlotValueToInteger] = reinterpret_cast<void*>(&ToInteger);
  table[kSlotValueToBoolean] = reinterpret_cast<void*>(&ToBoolean);
  table[kSlotValueToObject] = reinterpret_cast<void*>(&ToObject);
  Install();
}

void FakeHost::Install() { QZ_InitWrapper(table.data(), sizeof(void*) * table.size()); }

void FakeHost::ClearSlot(int slot) {
  table[slot] = nullptr;
  Install();
}

Value FakeHost::StrArray(const std::vector<std::u16string>& texts) {
  std::vector<Value> values;
  for (const auto& t : texts) values.push_back(engine.Str(t));
  return engine.Array(values);
}

Value FakeHost::IntArray(const std::vector<int64_t>& numbers) {
  std::vector<Value> values;
  for (int64_t n : numbers) values.push_back(engine.Int(n));
  return engine.Array(values);
}

qzhost::CallResult FakeHost::Call(const std::string& name, std::vector<Value> args) {
  return engine.Call(name, std::move(args), kUnset);
}

void ReleaseLibraryState() {
  IntArray* arrays[] = {&gOffsetArray, &gOffsetTypeArray, &gAttrOffsetArray, &gAttrLengthArray,
                        &gFromServerOffsetArray, &gFromServerLengthArray, &gLabelArray,
                        &gAttrFromServerOffsetArray, &gAttrFromServerLengthArray, &gAttrLabelArray,
                        &gFromServerTagBeginArray, &gFromServerTagEndArray, &gAttrsDenoteNonHtmlTags,
                        &gOpenTagOffsets, &gOpenTagIsServerTag, &gOpenTagIsNonHtmlServerTag};
  for (IntArray* a : arrays) IntArrayDestroy(a);
  StringArray* lists[] = {&gTagPrefixes, &gTagsContainingNonHtml, &gAttrsForServerTags,
                          &gAttrValuesForServerTags, &gOpenTags};
  for (StringArray* l : lists) StringArrayDestroy(l);
  PreCleanup();
  HiliteColorEnd();
  MemFree(gEncodedAttrs.pData);
  gEncodedAttrs = StringBuffer{};
  gbPreTranslate = 0;
  gFromServerTitleInsideStart = gFromServerTitleInsideEnd = -1;
}

void LibraryTest::SetUp() {
  FaultFailAt(0);
  ReleaseLibraryState();
  ASSERT_EQ(FaultOutstanding(), 0) << "an earlier test leaked";
}

void LibraryTest::TearDown() {
  FaultFailAt(0);
  ReleaseLibraryState();
  EXPECT_EQ(FaultOutstanding(), 0) << "allocations left outstanding";
}
