// The library as a host sees it: loaded with dlopen, reached only through its
// exported entry points and the script functions it registers.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Engine.h"

namespace {

using InitWrapperFn = intptr_t (*)(void* const*, uint32_t);

class LoadedLibrary : public ::testing::Test {
 protected:
  void SetUp() override {
    handle_ = dlopen(QZ_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle_, nullptr) << dlerror();
    init_ = reinterpret_cast<InitWrapperFn>(dlsym(handle_, "QZ_InitWrapper"));
    ASSERT_NE(init_, nullptr);
  }
  void TearDown() override {
    if (handle_) dlclose(handle_);
  }
  void* handle_ = nullptr;
  InitWrapperFn init_ = nullptr;
};

// The names and arities a translator script relies on, written out here on
// purpose rather than taken from HostContract.h: the library and the
// stand-in host both read that header, so only this copy would notice it
// drifting from what hosts expect.
const std::vector<std::pair<std::string, int>> kRegistrations = {
    {"initialize", 0},    {"beginPreTranslate", 2}, {"endPreTranslate", 1}, {"setLineEndingsToMatch", 2},
    {"replaceTextInsideTag", 4}, {"beginPostTranslate", 0}, {"endPostTranslate", 2}, {"cleanup", 0},
    {"directive", 2},     {"openTagBegin", 2},      {"openTagEnd", 2},      {"attribute", 2},
    {"closeTagBegin", 2}, {"closeTagEnd", 1},       {"text", 2},
};

TEST_F(LoadedLibrary, RegistersFifteenFunctionsInOrderForTablesThatReachTheDefineSlot) {
  for (size_t nSlots : {2u, 12u, 46u, 60u}) {
    qzhost::Engine engine;
    // Slots past the 46th, which no host fills, are not read.
    std::vector<void*> table(nSlots, reinterpret_cast<void*>(1));
    auto full = engine.Table();
    for (size_t i = 0; i < nSlots && i < full.size(); ++i) table[i] = full[i];
    intptr_t result = init_(table.data(), static_cast<uint32_t>(nSlots * sizeof(void*)));
    SCOPED_TRACE(nSlots);
    ASSERT_EQ(engine.Registrations().size(), kRegistrations.size());
    for (size_t i = 0; i < kRegistrations.size(); ++i) {
      EXPECT_EQ(engine.Registrations()[i].name, kRegistrations[i].first);
      EXPECT_EQ(engine.Registrations()[i].nargs, kRegistrations[i].second);
    }
    EXPECT_EQ(result, qzhost::Engine::DefineResult(14)) << "the result of registering text";
  }
}

TEST_F(LoadedLibrary, TablesWithoutTheDefineSlotRegisterNothing) {
  qzhost::Engine engine;
  auto table = engine.Table();
  EXPECT_EQ(init_(table.data(), 0), 0);
  EXPECT_EQ(init_(table.data(), sizeof(void*)), 0);
  EXPECT_EQ(init_(table.data(), sizeof(void*) + 7), 0) << "a part-slot is not read";
  EXPECT_EQ(init_(nullptr, 46 * sizeof(void*)), 0) << "no table";
  EXPECT_TRUE(engine.Registrations().empty());
}

TEST_F(LoadedLibrary, TwelveSlotsLeaveTheStringOperationsAbsent) {
  qzhost::Engine engine;
  auto table = engine.Table();
  init_(table.data(), 12 * sizeof(void*));
  // Without value to string the text services have no texts and fail.
  auto r = engine.Call("setLineEndingsToMatch", {engine.Str(u"a\r\n"), engine.Str(u"b\n")}, 99);
  EXPECT_EQ(r.ok, 0);
  EXPECT_EQ(r.result, 99u);
}

TEST_F(LoadedLibrary, StubsAnswerAsHooks) {
  auto property = reinterpret_cast<int (*)(void*, void*, void*, void*)>(dlsym(handle_, "JS_PropertyStub"));
  auto finalize = reinterpret_cast<void (*)(void*, void*)>(dlsym(handle_, "JS_FinalizeStub"));
  ASSERT_NE(property, nullptr);
  ASSERT_NE(finalize, nullptr);
  EXPECT_EQ(property(nullptr, nullptr, nullptr, nullptr), 1);
  finalize(nullptr, nullptr);
}

}  // namespace
