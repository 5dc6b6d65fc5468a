#pragma once

#include "media/AppError.h"
#include "media/Composition.h"
#include "media/Exporter.h"
#include "media/LoadedVideo.h"
#include "media/MediaAsset.h"
#include "media/Player.h"
#include "media/ThumbnailGenerator.h"
#include "model/RationalTime.h"
#include "model/SpeedTimeline.h"

#include <QString>

#include <chrono>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stop_token>
#include <vector>

namespace vantrix {

// A pending call on the GUI thread that can be called off. Destroying it calls it off too.
class DelayedCall {
 public:
  virtual ~DelayedCall() = default;
  virtual void cancel() = 0;
};

// Everything the application model asks of the media layer and the desktop, as replaceable
// functions. standard() wires the real implementations; tests swap single entries to hold a load
// open, stand in for a full disk or fire the spinner's delay on cue.
//
// The worker-thread entries are called off the GUI thread, possibly several at once, and must
// return promptly once their stop token is triggered. The GUI-thread entries are called on the GUI
// thread only.
struct AppServices {
  // Worker thread. Opens and checks a video (LoadedVideo::load).
  std::function<std::expected<LoadedVideo, AppError>(const std::filesystem::path&, std::stop_token)> loadVideo;

  // Worker thread. Builds the composition of a timeline (CompositionBuilder::build).
  std::function<std::expected<std::shared_ptr<const Composition>, AppError>(const SpeedTimeline&,
                                                                            const std::shared_ptr<const MediaAsset>&)>
      buildComposition;

  // Worker thread. Writes a composition to a file (Exporter::exportComposition); progress is
  // reported on the calling or an exporter thread.
  std::function<std::expected<Exporter::Outcome, AppError>(std::shared_ptr<const Composition>,
                                                           const std::filesystem::path&,
                                                           const Exporter::ProgressCallback&, std::stop_token)>
      exportComposition;

  // Worker thread. Makes filmstrip stills (ThumbnailGenerator::generate).
  std::function<void(const std::shared_ptr<const MediaAsset>&, std::span<const RationalTime>, double height,
                     double scale, std::stop_token, const ThumbnailGenerator::Sink&)>
      generateThumbnails;

  // GUI thread. The bookmark recorded for an opened video; none when it cannot be made, and then
  // no session is saved for that video.
  std::function<std::optional<std::vector<std::uint8_t>>(const QString& path)> makeBookmark;

  // GUI thread. Calls `fn` on the GUI thread after `delay` unless called off first.
  using DelayFactory =
      std::function<std::unique_ptr<DelayedCall>(std::chrono::milliseconds delay, std::function<void()> fn)>;
  DelayFactory startDelay;

  // GUI thread. How the preview player of each opened video is set up: its clock and its sound
  // output (the default is the wall clock and the system's sound device).
  std::function<Player::Options()> playerOptions;

  static AppServices standard();
};

}  // namespace vantrix
