// The stand-in engine's operation table: each value converted as the
// library reads its arguments (integers, truth values, texts, objects and
// the elements of arrays), and texts made into values.
#include "Engine.h"

#include <gtest/gtest.h>

using namespace qzhost;

TEST(EngineTest, ConvertsEveryKindOfValue) {
  Engine e;
  auto table = e.Table();
  auto toInteger = reinterpret_cast<int (*)(void*, Value, intptr_t*)>(table[kSlotValueToInteger]);
  auto toBoolean = reinterpret_cast<int (*)(void*, Value, int32_t*)>(table[kSlotValueToBoolean]);
  auto toString = reinterpret_cast<const char16_t* (*)(void*, Value, int32_t*)>(table[kSlotValueToString]);
  auto toObject = reinterpret_cast<int (*)(void*, Value, void**)>(table[kSlotValueToObject]);
  auto className = reinterpret_cast<const char* (*)(void*)>(table[kSlotClassName]);
  auto length = reinterpret_cast<intptr_t (*)(void*, void*)>(table[kSlotArrayLength]);
  auto element = reinterpret_cast<int (*)(void*, void*, int32_t, Value*)>(table[kSlotArrayElement]);
  auto toValue = reinterpret_cast<int (*)(void*, const char16_t*, size_t, Value*)>(table[kSlotStringToValue]);
  const Value array = e.Array({e.Str(u"a"), e.Int(2), kNull, kFalse});
  struct Case {
    Value v;
    intptr_t integer;
    int32_t truth;
    std::u16string text;
    const char* kind;  // its class name, "" for null
  } cases[] = {
      {e.Str(u" \t\n\r-12x"), -12, 1, u" \t\n\r-12x", "String"},
      {e.Str(u"+99999999999"), INT32_MAX, 1, u"+99999999999", "String"},
      {e.Str(u""), 0, 0, u"", "String"},
      {e.Int(-3), -3, 1, u"-3", "Number"},
      {kTrue, 1, 1, u"true", "Boolean"},
      {kFalse, 0, 0, u"false", "Boolean"},
      {kNull, 0, 0, u"null", ""},
      {array, 0, 1, u"a,2,null,false", "Array"},
  };
  for (const Case& c : cases) {
    intptr_t integer = 99;
    int32_t truth = 99, n = 0;
    void* object = &n;
    EXPECT_TRUE(toInteger(&e, c.v, &integer) && toBoolean(&e, c.v, &truth) && toObject(&e, c.v, &object));
    const char16_t* text = toString(&e, c.v, &n);
    EXPECT_EQ(std::tuple(integer, truth, std::u16string(text, n)), std::tuple(c.integer, c.truth, c.text)) << c.kind;
    EXPECT_STREQ(object ? className(object) : "", c.kind);
    EXPECT_EQ(object ? length(&e, object) : 0, c.v == array ? 4 : 0) << c.kind;
  }
  void* object = nullptr;
  toObject(&e, array, &object);
  Value got = kNull;
  EXPECT_TRUE(element(&e, object, 3, &got) && got == kFalse);
  EXPECT_FALSE(element(&e, object, 4, &got) || element(&e, object, -1, &got));
  toObject(&e, e.Int(1), &object);
  EXPECT_FALSE(element(&e, object, 0, &got)) << "no elements in a number";
  // Texts made into values: as long as given, or up to their NUL.
  EXPECT_TRUE(toValue(&e, u"ab\0c", 4, &got) && e.ToText(got) == std::u16string(u"ab\0c", 4));
  EXPECT_TRUE(toValue(&e, u"ab\0c", 0, &got) && e.ToText(got) == u"ab" && e.IsString(got) && !e.IsString(kNull));
  EXPECT_EQ(e.Call("none", {}, 5).result, 5u) << "an unknown function leaves the result alone";
}
