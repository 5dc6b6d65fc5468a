#pragma once

#include "media/MediaAsset.h"
#include "model/RationalTime.h"

#include <QImage>
#include <QSize>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stop_token>

namespace vantrix {

// Makes the filmstrip's stills from the unedited source: for each asked source time, the frame
// nearest to it within half a second either way, shown upright (display transform applied) at the
// asked height with the display aspect ratio kept. It opens its own demuxer and decoder on the
// asset's file for each run and never reads a composition.
//
// generate() runs on the calling thread (a worker, never the GUI thread: it blocks on decoding)
// and calls `deliver` on that same thread; the app posts each image to the GUI thread itself.
// One generator may serve several threads at once: it holds only the shared, immutable asset.
class ThumbnailGenerator {
 public:
  struct Thumbnail {
    int index = 0;  // position of the time in the caller's list
    QImage image;   // Format_RGB32
  };
  struct Summary {
    int delivered = 0;
    std::int64_t framesDecoded = 0;  // frames taken from the decoder, for tests and benchmarks
  };
  using Sink = std::function<void(Thumbnail&&)>;

  // How far the chosen frame may lie from the asked time, either way.
  static constexpr RationalTime kTolerance{1, 2};

  explicit ThumbnailGenerator(std::shared_ptr<const MediaAsset> asset);

  // Delivers a thumbnail for each time in list order, as soon as it is made: the first frame
  // within kTolerance of the time that decoding reaches, not necessarily the nearest. A time whose
  // frame cannot be read or lies farther than kTolerance from every frame is skipped silently; a file
  // that cannot be opened delivers nothing. The image height is imageHeight(height, scale).
  // `stop` is checked before every frame is decoded: once it is triggered no further frame is
  // decoded and generate() returns. An empty list returns at once without opening the file.
  Summary generate(std::span<const RationalTime> times, double height, double scale, std::stop_token stop,
                   const Sink& deliver) const;

  // round(height x scale), at least 1.
  static int imageHeight(double height, double scale);
  // The upright image size for a height: width = round(height x display aspect ratio), at least 1.
  QSize imageSize(int height) const;

 private:
  std::shared_ptr<const MediaAsset> m_asset;
};

}  // namespace vantrix
