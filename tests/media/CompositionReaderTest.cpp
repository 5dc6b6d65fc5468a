#include "media/CompositionReader.h"

#include "MediaTestSupport.h"

#include <gtest/gtest.h>

namespace vantrix {
namespace {

using namespace testing;

class CompositionReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_asset = openAsset(fixture({}));
    ASSERT_TRUE(m_asset);
    m_timeline.emplace(timelineFor(*m_asset, std::pair{300, 2900}, {{600, 1400, Speed::x4}, {1400, 2000, Speed::x16}}));
    m_composition = compose(*m_timeline, m_asset);
    auto reader = CompositionReader::open(m_composition);
    ASSERT_TRUE(reader);
    m_reader.emplace(std::move(*reader));
  }

  std::shared_ptr<const MediaAsset> m_asset;
  std::optional<SpeedTimeline> m_timeline;
  std::shared_ptr<const Composition> m_composition;
  std::optional<CompositionReader> m_reader;
};

// After a seek the first frame is the one showing at the asked time, with that time: boundaries,
// the last frame and beyond the end included.
TEST_F(CompositionReaderTest, SeeksLandOnTheFrameShowingThere) {
  const RationalTime end = m_composition->duration(), tick{1, 90000};
  std::vector<RationalTime> targets{RationalTime::zero(),     ms(1), ms(299), {1, 3}, ms(555), ms(800),
                                    end - RationalTime(1, 30)};
  for (const CompositionEdit& e : m_composition->videoEdits()) {
    targets.insert(targets.end(), {e.outputStart, e.outputEnd() - tick});
  }
  for (const RationalTime t : targets) {
    ASSERT_TRUE(m_reader->seek(t));
    const auto frame = m_reader->nextVideoFrame();
    ASSERT_TRUE(frame && *frame) << t.toString();
    EXPECT_EQ((*frame)->outputTime, t);
    EXPECT_EQ((*frame)->sourceTime, RationalTime(expectedFrame(*m_composition, t), 30)) << "at " << t.toString();
  }
  for (const RationalTime past : {end, end + RationalTime(5, 1)}) {
    ASSERT_TRUE(m_reader->seek(past));
    const auto frame = m_reader->nextVideoFrame();
    EXPECT_TRUE(frame && !*frame) << "nothing follows the end";
  }
}

// The sound covers the output exactly, sample for sample, and is digital silence where the picture
// is sped up.
TEST_F(CompositionReaderTest, SoundTilesTheOutputAndSpedUpStretchesAreZero) {
  ASSERT_NE(m_reader->audioLayout(), nullptr);
  std::vector<std::vector<float>> buffers(static_cast<std::size_t>(m_reader->audioLayout()->nb_channels),
                                          std::vector<float>(1000));
  std::vector<float*> planes;
  for (auto& b : buffers) planes.push_back(b.data());
  const std::int64_t spedFrom = CompositionReader::audioSampleAt(m_timeline->outputTimeForSource(ms(600)));
  const std::int64_t spedTo = CompositionReader::audioSampleAt(m_timeline->outputTimeForSource(ms(2000)));
  std::int64_t position = 0, loudInNormal = 0;
  for (auto got = m_reader->readAudio(planes.data(), 1000); got && *got;
       got = m_reader->readAudio(planes.data(), 1000)) {
    for (int i = 0; i < *got; ++i, ++position) {
      const float v = buffers[0][static_cast<std::size_t>(i)];
      if (position >= spedFrom && position < spedTo) {
        ASSERT_EQ(v, 0.0f) << "sample " << position;
      } else if (v != 0.0f) {
        ++loudInNormal;
      }
    }
  }
  EXPECT_EQ(position, CompositionReader::audioSampleAt(m_composition->duration()));
  EXPECT_GT(loudInNormal, (position - (spedTo - spedFrom)) / 2);  // the tone is there where it belongs
}

// The preview after an edit: the same asset in a new composition, at the same source instant. The
// decoded frames carry over, so the frame comes back without decoding the way to it again.
TEST_F(CompositionReaderTest, ANewCompositionOfTheSameAssetKeepsTheDecodedFrames) {
  const RationalTime source = ms(2500);
  ASSERT_TRUE(m_reader->seek(m_timeline->outputTimeForSource(source)));
  const auto before = m_reader->nextVideoFrame();
  ASSERT_TRUE(before && *before);
  ASSERT_EQ((*before)->sourceTime, source);
  const std::int64_t decoded = m_reader->framesDecoded();

  const SpeedTimeline edited = timelineFor(*m_asset, std::pair{300, 2900}, {{400, 500, Speed::x2}});
  ASSERT_TRUE(m_reader->replaceComposition(compose(edited, m_asset)));
  ASSERT_TRUE(m_reader->seek(edited.outputTimeForSource(source)));
  const auto after = m_reader->nextVideoFrame();
  ASSERT_TRUE(after && *after);
  EXPECT_EQ((*after)->sourceTime, source);
  EXPECT_EQ((*after)->outputTime, edited.outputTimeForSource(source));
  EXPECT_LE(m_reader->framesDecoded() - decoded, 1);
}

}  // namespace
}  // namespace vantrix
