#include "MediaOpening.h"

#include "media/CompositionBuilder.h"
#include "media/CompositionReader.h"
#include "media/LoadedVideo.h"
#include "media/ThumbnailGenerator.h"
#include "model/TimelineGeometry.h"

#include <array>
#include <vector>

namespace vantrix::fuzz {
namespace {

// Enough to pass the first group of pictures' reordering and the start of the sound, small enough
// that one run stays in milliseconds for the fuzzer.
constexpr int kFramesToRead = 6;
constexpr int kAudioChunks = 12;  // a quarter of a second at 48 kHz
constexpr int kAudioChunk = 1024;
constexpr int kThumbnailCount = 3;

std::string describe(const RationalTime& t) { return t.toString(); }

// Reads the first frames (and some sound) of `composition` and checks what the reader promises:
// the first frame shows at output zero, output times rise strictly and stay inside the
// composition, a seek to t yields a frame at exactly t, and sound never comes out longer than asked.
std::optional<std::string> readLikeThePlayer(const std::shared_ptr<const Composition>& composition,
                                             OpeningReport& report) {
  CompositionReader::Options options;
  options.decoderThreads = 1;
  auto reader = CompositionReader::open(composition, {}, options);
  if (!reader) return std::nullopt;  // a file that fails to open twice is refused by the player, not a fault
  const RationalTime duration = composition->duration();

  std::optional<RationalTime> previous;
  for (int i = 0; i < kFramesToRead; ++i) {
    auto frame = reader->nextVideoFrame();
    if (!frame || !*frame) break;
    const RationalTime t = (*frame)->outputTime;
    if (!previous && t != RationalTime::zero()) return "first frame shows at " + describe(t) + ", not at 0";
    if (previous && !(*previous < t)) return "frame at " + describe(t) + " after one at " + describe(*previous);
    if (!(t < duration)) return "frame at " + describe(t) + " past the duration " + describe(duration);
    previous = t;
    ++report.framesRead;
  }

  if (const AVChannelLayout* layout = reader->audioLayout()) {
    std::vector<std::vector<float>> buffers(static_cast<std::size_t>(layout->nb_channels),
                                            std::vector<float>(kAudioChunk));
    std::vector<float*> planes;
    for (auto& b : buffers) planes.push_back(b.data());
    for (int i = 0; i < kAudioChunks; ++i) {
      auto got = reader->readAudio(planes.data(), kAudioChunk);
      if (!got || *got == 0) break;
      if (*got < 0 || *got > kAudioChunk) return "readAudio returned " + std::to_string(*got);
    }
  }

  const RationalTime middle = duration.dividedBy(2);
  if (!reader->seek(middle)) return std::nullopt;
  auto frame = reader->nextVideoFrame();
  if (frame && *frame && (*frame)->outputTime != middle)
    return "seek to " + describe(middle) + " gave a frame at " + describe((*frame)->outputTime);
  return std::nullopt;
}

}  // namespace

// Properties: the loader refuses an existing file only as unsupportedFile; an opened video has a
// positive duration; the pass-through timeline and one with a segment at x4 always build; the
// reader keeps its promises (readLikeThePlayer); stills come in rising index order at the asked
// height. Nothing inside may crash or stop on a fatal check.
OpeningReport openLikeTheEditor(const std::filesystem::path& path) {
  OpeningReport report;
  auto video = LoadedVideo::load(path);
  if (!video) {
    report.refusal = video.error();
    if (video.error().kind() != AppError::Kind::unsupportedFile)
      report.violation = "an existing file refused as " + std::string(toString(video.error().kind()));
    return report;
  }
  const auto& asset = video->asset;
  const RationalTime duration = asset->duration();
  if (!(RationalTime::zero() < duration)) {
    report.violation = "opened with duration " + describe(duration);
    return report;
  }

  SpeedTimeline timeline(duration);
  std::vector<SpeedTimeline> timelines{timeline};
  const auto quarter = TimelineGeometry::sampleTimes(4, duration);
  if (timeline.addSegment(quarter[1], quarter[3], Speed::x4)) timelines.push_back(timeline);
  for (const SpeedTimeline& t : timelines) {
    auto composition = CompositionBuilder::build(t, asset);
    if (!composition) {
      report.violation = "no composition for a timeline of " + describe(duration);
      return report;
    }
    if (auto broken = readLikeThePlayer(*composition, report)) {
      report.violation = std::move(broken);
      return report;
    }
  }

  const auto times = TimelineGeometry::sampleTimes(kThumbnailCount, duration);
  constexpr int kHeight = 24;
  int lastIndex = -1;
  ThumbnailGenerator(asset).generate(times, kHeight, 1.0, {}, [&](ThumbnailGenerator::Thumbnail&& t) {
    if (t.index <= lastIndex || t.index >= kThumbnailCount || t.image.height() != kHeight)
      report.violation = "still " + std::to_string(t.index) + " after " + std::to_string(lastIndex) + ", " +
                         std::to_string(t.image.height()) + " pixels high";
    lastIndex = t.index;
    ++report.thumbnails;
  });
  return report;
}

}  // namespace vantrix::fuzz
