#include "media/CompositionReader.h"

#include "ExportTestSupport.h"

#include <gtest/gtest.h>

namespace vantrix {
namespace {

using namespace testing;

struct Fixture {
  std::shared_ptr<const MediaAsset> asset;
  SpeedTimeline timeline;
  std::shared_ptr<const Composition> composition;
  std::vector<DecodedFrame> sourceFrames;
};

Fixture makeFixture(const FixtureSpec& recipe) {
  const auto file = fixture(recipe);
  auto asset = openAsset(file);
  SpeedTimeline timeline = timelineFor(*asset, std::pair{300, 2900}, {{600, 1400, Speed::x4}, {1400, 2000, Speed::x16}});
  auto composition = compose(timeline, asset);
  return {asset, timeline, composition, readFrames(file)};
}

// After a seek the first frame is the one showing at the asked time, with that time: boundaries,
// the last frame and beyond the end included.
TEST(CompositionReader, SeeksLandOnTheFrameShowingThere) {
  const Fixture f = makeFixture({});
  auto reader = CompositionReader::open(f.composition);
  ASSERT_TRUE(reader);
  const RationalTime end = f.composition->duration();
  std::vector<RationalTime> targets{RationalTime::zero(), ms(1), ms(299), ms(300), {1, 3}, ms(555)};
  for (const CompositionEdit& e : f.composition->videoEdits()) targets.insert(targets.end(), {e.outputStart, e.outputEnd() - RationalTime(1, 90000)});
  targets.insert(targets.end(), {end - RationalTime(1, 30), end - RationalTime(1, 90000), ms(800)});
  for (const RationalTime t : targets) {
    ASSERT_TRUE(reader->seek(t));
    auto frame = reader->nextVideoFrame();
    ASSERT_TRUE(frame && *frame) << t.toString();
    EXPECT_EQ((*frame)->outputTime, t);
    // The frame shown is the latest source frame at or before the mapped instant; in a sped-up
    // stretch the picture changes only at its start and on the 1/30 s frame grid.
    const RationalTime origin = f.sourceFrames.front().time;
    RationalTime sampled = t;
    if (const CompositionEdit* edit = f.composition->videoEditAt(t); edit && edit->speed) {
      const RationalTime grid{static_cast<std::int64_t>(t.value() * 30 / t.timescale()), 30};
      sampled = grid > edit->outputStart ? grid : edit->outputStart;
    }
    const RationalTime x = f.timeline.sourceTimeForOutput(sampled);
    RationalTime expected = RationalTime::zero();
    for (const DecodedFrame& s : f.sourceFrames)
      if (s.time - origin <= x) expected = s.time - origin;
    EXPECT_EQ((*frame)->sourceTime, expected)
        << "at " << t.toString();
  }
  for (const RationalTime past : {end, end + RationalTime(5, 1)}) {
    ASSERT_TRUE(reader->seek(past));
    auto frame = reader->nextVideoFrame();
    ASSERT_TRUE(frame);
    EXPECT_FALSE(*frame) << "nothing follows the end";
  }
}

// The sound covers the output exactly, sample for sample, and is digital silence where the picture
// is sped up.
TEST(CompositionReader, SoundTilesTheOutputAndSpedUpStretchesAreZero) {
  const Fixture f = makeFixture({});
  auto reader = CompositionReader::open(f.composition);
  ASSERT_TRUE(reader);
  ASSERT_NE(reader->audioLayout(), nullptr);
  const int channels = reader->audioLayout()->nb_channels;
  std::vector<std::vector<float>> buffers(static_cast<std::size_t>(channels), std::vector<float>(1000));
  std::vector<float*> planes;
  for (auto& b : buffers) planes.push_back(b.data());

  const std::int64_t spedFrom = CompositionReader::audioSampleAt(f.timeline.outputTimeForSource(ms(600)));
  const std::int64_t spedTo = CompositionReader::audioSampleAt(f.timeline.outputTimeForSource(ms(2000)));
  std::int64_t position = 0;
  std::int64_t loudInNormal = 0;
  for (;;) {
    auto got = reader->readAudio(planes.data(), 1000);
    ASSERT_TRUE(got);
    if (*got == 0) break;
    for (int i = 0; i < *got; ++i, ++position) {
      const float v = buffers[0][static_cast<std::size_t>(i)];
      if (position >= spedFrom && position < spedTo) ASSERT_EQ(v, 0.0f) << "sample " << position;
      else if (v != 0.0f) ++loudInNormal;
    }
  }
  EXPECT_EQ(position, CompositionReader::audioSampleAt(f.composition->duration()));
  EXPECT_GT(loudInNormal, (position - (spedTo - spedFrom)) / 2);  // the tone is there where it belongs
}

// The preview after an edit: the same asset in a new composition, at the same source instant. The
// decoded frames carry over, so the frame comes back without decoding the way to it again.
TEST(CompositionReader, ANewCompositionOfTheSameAssetKeepsTheDecodedFrames) {
  const Fixture f = makeFixture({});
  auto reader = CompositionReader::open(f.composition);
  ASSERT_TRUE(reader);
  const RationalTime source = ms(2500);
  ASSERT_TRUE(reader->seek(f.timeline.outputTimeForSource(source)));
  auto before = reader->nextVideoFrame();
  ASSERT_TRUE(before && *before);
  ASSERT_EQ((*before)->sourceTime, source);
  const std::int64_t decoded = reader->framesDecoded();

  const SpeedTimeline edited = timelineFor(*f.asset, std::pair{300, 2900}, {{400, 500, Speed::x2}});
  ASSERT_TRUE(reader->replaceComposition(compose(edited, f.asset)));
  ASSERT_TRUE(reader->seek(edited.outputTimeForSource(source)));
  auto after = reader->nextVideoFrame();
  ASSERT_TRUE(after && *after);
  EXPECT_EQ((*after)->sourceTime, source);
  EXPECT_EQ((*after)->outputTime, edited.outputTimeForSource(source));
  EXPECT_LE(reader->framesDecoded() - decoded, 1);
}

}  // namespace
}  // namespace vantrix
