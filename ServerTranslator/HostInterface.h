// The library's view of its host: the script-engine operations it reaches
// through qzEnv, and the host's UTF-16 string library (char16.h). Slot
// numbers, values and names that both sides share are in HostContract.h.
//
// Rule for every caller: re-read the slot right before each call and skip the
// call when the slot is empty. The Host* wrappers below do exactly that and
// report an absent operation the way each caller needs it.
#ifndef QZ_HOST_INTERFACE_H
#define QZ_HOST_INTERFACE_H

#include <cstddef>
#include <cstdint>

#include "HostContract.h"
#include "char16.h"

typedef intptr_t (*DefineFunctionOp)(void* libObj, const char* name, Native fn, int nargs);
typedef int (*ValueToIntegerOp)(void* cx, ScriptValue v, intptr_t* out);
typedef int (*ValueToBooleanOp)(void* cx, ScriptValue v, int32_t* out);
typedef int (*ValueToObjectOp)(void* cx, ScriptValue v, void** out);
typedef const char* (*ClassNameOp)(void* obj);
typedef intptr_t (*ArrayLengthOp)(void* cx, void* obj);
typedef int (*ArrayElementOp)(void* cx, void* obj, int32_t index, ScriptValue* out);
typedef const char16_t* (*ValueToStringOp)(void* cx, ScriptValue v, int32_t* length);
typedef int (*StringToValueOp)(void* cx, const char16_t* text, size_t length, ScriptValue* out);

// The host environment table, copied from the host by QZ_InitWrapper; all
// zero until then.
extern void* qzEnv[kHostSlotCount];

template <typename Op>
inline Op HostOp(int slot) {
  return reinterpret_cast<Op>(qzEnv[slot]);
}

// Text of a value, or null when the operation is absent (then *pLength is 0).
// The host owns the text; it stays valid for the current call only.
inline const char16_t* HostValueToString(void* cx, ScriptValue v, int32_t* pLength) {
  *pLength = 0;
  ValueToStringOp op = HostOp<ValueToStringOp>(kSlotValueToString);
  if (!op) return nullptr;
  return op(cx, v, pLength);
}

// A text argument as a native reads it: the host's text, null when it could
// not be read (then its length is 0), and its length in code units.
struct HostText {
  const char16_t* text;
  int32_t length;
};

inline HostText HostReadText(void* cx, ScriptValue v) {
  HostText t;
  t.text = HostValueToString(cx, v, &t.length);
  if (!t.text) t.length = 0;
  return t;
}

// Integer of a value into *pOut, which the caller presets; an absent
// operation leaves *pOut as it was.
inline void HostValueToInteger(void* cx, ScriptValue v, intptr_t* pOut) {
  ValueToIntegerOp op = HostOp<ValueToIntegerOp>(kSlotValueToInteger);
  if (op) op(cx, v, pOut);
}

// An integer argument: its low 32 bits, 0 when the operation is absent.
inline int32_t HostReadInt32(void* cx, ScriptValue v) {
  intptr_t n = 0;
  HostValueToInteger(cx, v, &n);
  return static_cast<int32_t>(n);
}

// Makes a script string of a NUL-terminated text; 0 when the operation is
// absent or fails. The host copies the text. A caller that knows the text's
// length (its NUL's index) passes it, so the host need not measure it; 0
// leaves the measuring to the host.
inline int HostStringToValue(void* cx, const char16_t* text, ScriptValue* rval, size_t length = 0) {
  StringToValueOp op = HostOp<StringToValueOp>(kSlotStringToValue);
  if (!op) return 0;
  return op(cx, text, length, rval);
}

#endif
