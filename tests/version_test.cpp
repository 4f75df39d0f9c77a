#include "vantdr/version.h"

#include <dlfcn.h>
#include <stdlib.h>

#include <string>

#include "gtest/gtest.h"

namespace {

TEST(VersionTest, HeaderLibraryAndSharedObjectAgreeWithTheProjectVersion) {
  EXPECT_STREQ(VANTDR_VERSION_STRING, VANTDR_TEST_PROJECT_VERSION);
  EXPECT_EQ(std::to_string(VANTDR_VERSION_MAJOR) + "." + std::to_string(VANTDR_VERSION_MINOR) +
                "." + std::to_string(VANTDR_VERSION_PATCH),
            VANTDR_TEST_PROJECT_VERSION);
  static_assert(VANTDR_VERSION == VANTDR_VERSION_MAJOR * 10000 + VANTDR_VERSION_MINOR * 100 +
                                      VANTDR_VERSION_PATCH,
                "one comparable number");
  static_assert(VANTDR_VERSION >= 10000, "usable in #if");

  // The loaded library's version equals the header's and its real file name's suffix.
  const char* loaded = VantDRCore::GetLibraryVersion();
  ASSERT_NE(loaded, nullptr);
  EXPECT_STREQ(loaded, VANTDR_VERSION_STRING);
  Dl_info info{};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&VantDRCore::GetLibraryVersion), &info), 0);
  char* real = realpath(info.dli_fname, nullptr);
  ASSERT_NE(real, nullptr);
  const std::string file = real;
  free(real);
  const std::string suffix = std::string("/libvantdrcore.so.") + loaded;
  ASSERT_GE(file.size(), suffix.size()) << file;
  EXPECT_EQ(file.substr(file.size() - suffix.size()), suffix) << file;
}

}  // namespace
