// Loading the translator library the way a host does: dlopen, then the one
// entry function with the engine's operation table.
#ifndef QZHOST_LIBRARY_H
#define QZHOST_LIBRARY_H

#include <string>

#include "Engine.h"

namespace qzhost {

// The library's entry: (host table, its size in bytes) -> what the last
// registration returned.
using InitWrapperFn = intptr_t (*)(void* const* table, uint32_t sizeInBytes);

// Loads the library at path (once per process; later calls reuse it) and
// calls its entry with engine's full operation table, which registers the
// script functions with that engine. Returns false with a message when the
// file cannot be loaded, has no entry, or leaves a script function
// unregistered.
bool LoadTranslatorLibrary(const std::string& path, Engine& engine, std::string* error);

// libServerTranslator.so in the folder of the running executable.
std::string DefaultLibraryPath();

// The build ID (hex) of the loaded library at path, which tells one build
// from another since the library carries no version number; empty when the
// library is not loaded or has none.
std::string LibraryBuildId(const std::string& path);

}  // namespace qzhost

#endif
