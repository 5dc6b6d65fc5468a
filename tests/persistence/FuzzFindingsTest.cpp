// Replays the fuzzer's seed corpus and every input it ever found (fuzz/findings) through the same
// properties the fuzzer checks, so a past finding stays fixed.

#include "SessionProperties.h"
#include "persistence/Session.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace vantrix {
namespace {

// `valid`: every file is a session file that decodes (the seeds).
void checkEveryFileIn(const std::filesystem::path& folder, std::size_t atLeast, bool valid) {
  std::size_t checked = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (!entry.is_regular_file() || entry.path().filename() == "README.md") continue;
    std::ifstream in(entry.path(), std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    EXPECT_EQ(fuzz::checkSessionProperties(bytes.str()), std::nullopt) << entry.path();
    if (valid) {
      EXPECT_TRUE(decodeSession(bytes.str())) << entry.path();
    }
    ++checked;
  }
  EXPECT_GE(checked, atLeast) << folder;
}

TEST(SessionFuzzFindings, SeedCorpusHoldsTheProperties) { checkEveryFileIn(VANTRIX_FUZZ_CORPUS_DIR, 4, true); }

TEST(SessionFuzzFindings, EveryPastFindingHoldsTheProperties) { checkEveryFileIn(VANTRIX_FUZZ_FINDINGS_DIR, 0, false); }

}  // namespace
}  // namespace vantrix
