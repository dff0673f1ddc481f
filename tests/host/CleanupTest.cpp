// The registry of what an interruption must undo: temporary files take one
// of four slots of bounded paths, and a slot is free again once its file is
// forgotten.
#include "Cleanup.h"

#include <gtest/gtest.h>

#include <string>

using namespace qzhost;

TEST(CleanupTest, TemporaryFilesTakeFourSlotsOfBoundedPaths) {
  EXPECT_FALSE(RegisterTempFile(std::string(4096, 'x').c_str())) << "a path that does not fit";
  for (const char* path : {"/t/1", "/t/2", "/t/3", "/t/4"}) EXPECT_TRUE(RegisterTempFile(path)) << path;
  EXPECT_FALSE(RegisterTempFile("/t/5")) << "every slot taken";
  ForgetTempFile("/t/2");
  ForgetTempFile("/t/none");
  EXPECT_TRUE(RegisterTempFile("/t/5")) << "the forgotten one's slot";
  EXPECT_FALSE(RegisterTempFile("/t/6"));
  for (const char* path : {"/t/1", "/t/3", "/t/4", "/t/5"}) ForgetTempFile(path);
  EXPECT_TRUE(RegisterTempFile("/t/7"));
  ForgetTempFile("/t/7");
}
