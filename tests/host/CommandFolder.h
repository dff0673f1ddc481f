// What the suites that run the qztranslate command share: a folder of their
// own for pages and outputs, removed after each test, and the command run
// with arguments and standard input.
#ifndef QZHOST_TESTS_COMMANDFOLDER_H
#define QZHOST_TESTS_COMMANDFOLDER_H

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "Files.h"
#include "Server.h"

namespace qzhost {

inline bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class CommandFolder : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(mkdtemp(folder), nullptr); }
  void TearDown() override { std::filesystem::remove_all(folder); }

  std::string Path(const std::string& name) { return folder + ("/" + name); }

  void Write(const std::string& name, const std::string& bytes) {
    std::filesystem::create_directories(FolderOf(Path(name)));
    std::ofstream(Path(name), std::ios::binary) << bytes;
  }

  // The file's bytes, or "(unreadable)".
  std::string Read(const std::string& name) {
    std::string bytes, error;
    return ReadWholeFile(Path(name), &bytes, &error) ? bytes : "(unreadable)";
  }

  // Runs qztranslate with the arguments (each quoted) from the root folder,
  // so that only the page's own folder can make relative paths work; input
  // goes to its standard input.
  ServerRun Command(std::initializer_list<std::string> args, std::string_view input = "") {
    std::string line = QZ_TRANSLATE_PATH;
    for (std::string a : args) {
      for (size_t at = 0; (at = a.find('\'', at)) != std::string::npos; at += 4) a.replace(at, 1, "'\\''");
      line += " '" + a + "'";
    }
    ServerRun run;
    std::string error;
    EXPECT_TRUE(RunServer(line, "/", input, &run, &error)) << error;
    return run;
  }

  char folder[21] = "/tmp/qzcommandXXXXXX";
};

}  // namespace qzhost

#endif
