#include "Library.h"

#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>

namespace qzhost {

bool LoadTranslatorLibrary(const std::string& path, Engine& engine, std::string* error) {
  // The library keeps process-wide state and no host unloads it, so the
  // handle is never closed.
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    const char* why = dlerror();
    *error = "cannot load the translator library " + path + ": " + (why ? why : "unknown reason");
    return false;
  }
  auto entry = reinterpret_cast<InitWrapperFn>(dlsym(handle, "QZ_InitWrapper"));
  if (!entry) {
    *error = "the translator library " + path + " has no entry function QZ_InitWrapper";
    return false;
  }
  std::array<void*, kTableSlots> table = engine.Table();
  intptr_t last = entry(table.data(), static_cast<uint32_t>(sizeof table));
  for (const ScriptFunctionName& f : kScriptFunctionNames) {
    if (!engine.Find(f.name)) {
      *error = "the translator library " + path + " did not register the script function " + f.name;
      return false;
    }
  }
  if (last == 0) {
    *error = "the translator library " + path + " reported a failed registration";
    return false;
  }
  return true;
}

std::string DefaultLibraryPath() {
  char exe[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n <= 0) return "libServerTranslator.so";
  std::string path(exe, static_cast<size_t>(n));
  size_t slash = path.find_last_of('/');
  return path.substr(0, slash + 1) + "libServerTranslator.so";
}

}  // namespace qzhost
