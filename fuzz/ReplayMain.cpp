// The replay driver: runs a fuzz target over files without a fuzzing
// engine, so that the seed corpora and the inputs fuzzing once found run as
// ordinary tests in every build, also with g++.
//
//   TARGET FILE-OR-FOLDER...
//
// Each file is one input; a folder stands for the files in it, in name
// order. The name of each file goes to standard error before it runs, so a
// crash names its input. Exits 1 when a path cannot be read or no input
// was found.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "FuzzHost.h"

namespace fs = std::filesystem;

namespace {

bool Replay(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return false;
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return false;
  std::fprintf(stderr, "replay: %s\n", file.c_str());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  size_t nRun = 0;
  for (int i = 1; i < argc; ++i) {
    std::error_code error;
    std::vector<fs::path> files;
    if (fs::is_directory(argv[i], error)) {
      for (const fs::directory_entry& entry : fs::directory_iterator(argv[i], error))
        if (entry.is_regular_file()) files.push_back(entry.path());
      std::sort(files.begin(), files.end());
    } else {
      files.push_back(argv[i]);
    }
    if (error) {
      std::fprintf(stderr, "replay: cannot read %s: %s\n", argv[i], error.message().c_str());
      return 1;
    }
    for (const fs::path& file : files) {
      if (!Replay(file)) {
        std::fprintf(stderr, "replay: cannot read %s\n", file.c_str());
        return 1;
      }
      ++nRun;
    }
  }
  if (nRun == 0) {
    std::fprintf(stderr, "replay: no input given\n");
    return 1;
  }
  std::fprintf(stderr, "replay: %zu inputs, no failure\n", nRun);
  return 0;
}
