// A translator library that loads but misbehaves at registration, for the
// loader's checks; built without a build ID, but with another GNU note that
// the build-ID search must pass over. QZ_MISBEHAVE picks how, at each
// call of the entry: "unregistered" registers no script function, "refused"
// registers them all but reports the last registration failed; anything
// else registers them all and succeeds. Every native it registers succeeds
// and does nothing.
#include <cstdlib>
#include <cstring>

#include "HostContract.h"

namespace {

int DoNothing(void*, void*, uint32_t, ScriptValue*, ScriptValue* rval) {
  *rval = kScriptTrue;
  return 1;
}

using DefineOp = intptr_t (*)(void* cx, const char* name, Native fn, int nargs);

// A GNU ABI-tag note (type 1): GNU/Linux 3.2.0.
struct Note {
  uint32_t nameSize, descSize, type;
  char name[4];
  uint32_t desc[4];
};
[[gnu::section(".note.ABI-tag"), gnu::used, gnu::aligned(4)]] const Note kAbiTag = {4, 16, 1, "GNU", {0, 3, 2, 0}};

}  // namespace

extern "C" __attribute__((visibility("default"))) intptr_t QZ_InitWrapper(void* const* table, uint32_t) {
  const char* how = std::getenv("QZ_MISBEHAVE");
  const bool bUnregistered = how && std::strcmp(how, "unregistered") == 0;
  const bool bRefused = how && std::strcmp(how, "refused") == 0;
  if (bUnregistered) return 1;
  auto define = reinterpret_cast<DefineOp>(table[kSlotDefineFunction]);
  intptr_t last = 0;
  for (const ScriptFunctionName& f : kScriptFunctionNames) last = define(table[kSlotLibraryObject], f.name, &DoNothing, f.nargs);
  return bRefused ? 0 : last;
}
