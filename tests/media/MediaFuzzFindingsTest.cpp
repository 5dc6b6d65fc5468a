// Replays the media fuzzer's seeds and every input it ever found through the run it fuzzes
// (fuzz/MediaOpening.h), so that a past crash, hang or broken promise stays fixed.

#include "MediaOpening.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <filesystem>

namespace vantrix {
namespace {

std::vector<std::filesystem::path> inputsIn(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    if (entry.is_regular_file() && entry.path().filename() != "README.md") files.push_back(entry.path());
  return files;
}

TEST(MediaFuzzFindings, SeedsOpenPlayAndGiveEveryStill) {
  const auto seeds = inputsIn(VANTRIX_MEDIA_FUZZ_CORPUS_DIR);
  EXPECT_GE(seeds.size(), 5u);
  for (const auto& seed : seeds) {
    const auto report = fuzz::openLikeTheEditor(seed);
    EXPECT_EQ(report.violation, std::nullopt) << seed;
    EXPECT_FALSE(report.refusal) << seed;
    EXPECT_GE(report.framesRead, 2) << seed;
    EXPECT_EQ(report.thumbnails, 3) << seed;
  }
}

// Each file is named for what it once broke. All are refused now: the Matroska and transport
// streams among them because only QuickTime / MPEG-4 is read, the rest for their times.
TEST(MediaFuzzFindings, EveryPastFindingKeepsThePromisesAndIsRefused) {
  const auto findings = inputsIn(VANTRIX_MEDIA_FUZZ_FINDINGS_DIR);
  EXPECT_GE(findings.size(), 10u);
  for (const auto& finding : findings) {
    const auto report = fuzz::openLikeTheEditor(finding);
    EXPECT_EQ(report.violation, std::nullopt) << finding;
    EXPECT_TRUE(report.refusal) << finding;
  }
  // Some once made the player fill gigabytes; this process (one per test) peaks far below.
  rusage usage{};
  ASSERT_EQ(getrusage(RUSAGE_SELF, &usage), 0);
  EXPECT_LT(usage.ru_maxrss, 1024 * 1024) << "peak resident KiB";
}

}  // namespace
}  // namespace vantrix
