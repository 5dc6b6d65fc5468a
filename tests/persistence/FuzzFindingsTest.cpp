// Replays the fuzzer's seed corpus and every input it ever found through the properties the fuzzer
// checks, so that a past finding stays fixed.

#include "SessionProperties.h"
#include "persistence/Session.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace vantrix {
namespace {

// `seeds`: every file is a session file that decodes.
void checkEveryFileIn(const std::filesystem::path& folder, std::size_t atLeast, bool seeds) {
  std::size_t checked = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (!entry.is_regular_file() || entry.path().filename() == "README.md") continue;
    std::stringstream bytes;
    bytes << std::ifstream(entry.path(), std::ios::binary).rdbuf();
    EXPECT_EQ(fuzz::checkSessionProperties(bytes.str()), std::nullopt) << entry.path();
    if (seeds) {
      EXPECT_TRUE(decodeSession(bytes.str())) << entry.path();
    }
    ++checked;
  }
  EXPECT_GE(checked, atLeast) << folder;
}

TEST(SessionFuzzFindings, SeedsAndEveryPastFindingHoldTheProperties) {
  checkEveryFileIn(VANTRIX_FUZZ_CORPUS_DIR, 4, true);
  checkEveryFileIn(VANTRIX_FUZZ_FINDINGS_DIR, 1, false);
}

}  // namespace
}  // namespace vantrix
