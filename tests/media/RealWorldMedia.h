#pragma once

// The real-world sample files kept beside the checkout (never copied into it). Tests that use them
// skip when the folder is absent.

#include <filesystem>
#include <optional>

namespace vantrix::testing {

// The folder, or nullopt when it is not there.
std::optional<std::filesystem::path> realWorldDir();

// One file inside the folder, relative to it ("androidx__media/sample.mp4").
std::filesystem::path realWorldFile(const char* relative);

}  // namespace vantrix::testing

// Skips the current test when the folder is absent.
#define VANTRIX_REQUIRE_REAL_WORLD()                                                       \
  do {                                                                                     \
    if (!::vantrix::testing::realWorldDir()) GTEST_SKIP() << "no real-world media folder"; \
  } while (false)
