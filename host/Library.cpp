#include "Library.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>

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

namespace {

struct BuildIdSearch {
  std::string path;  // the library's real path
  std::string id;
};

std::string RealPath(const char* path) {
  char* real = realpath(path, nullptr);
  if (!real) return "";
  std::string result(real);
  free(real);
  return result;
}

// The GNU build-ID note among the object's loaded note segments.
int FindBuildId(struct dl_phdr_info* info, size_t, void* data) {
  auto* search = static_cast<BuildIdSearch*>(data);
  if (!info->dlpi_name || !*info->dlpi_name || RealPath(info->dlpi_name) != search->path) return 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& ph = info->dlpi_phdr[i];
    if (ph.p_type != PT_NOTE) continue;
    const char* p = reinterpret_cast<const char*>(info->dlpi_addr + ph.p_vaddr);
    const char* end = p + ph.p_memsz;
    while (p + sizeof(ElfW(Nhdr)) <= end) {
      ElfW(Nhdr) note;
      std::memcpy(&note, p, sizeof note);
      const char* name = p + sizeof note;
      const char* desc = name + ((note.n_namesz + 3) & ~3u);
      if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == 4 && std::memcmp(name, "GNU", 4) == 0) {
        static const char kHex[] = "0123456789abcdef";
        for (size_t k = 0; k < note.n_descsz; ++k) {
          unsigned char b = static_cast<unsigned char>(desc[k]);
          search->id += kHex[b >> 4];
          search->id += kHex[b & 15];
        }
        return 1;
      }
      p = desc + ((note.n_descsz + 3) & ~3u);
    }
  }
  return 0;
}

}  // namespace

std::string LibraryBuildId(const std::string& path) {
  BuildIdSearch search{RealPath(path.c_str()), ""};
  if (search.path.empty()) return "";
  dl_iterate_phdr(FindBuildId, &search);
  return search.id;
}

}  // namespace qzhost
