#pragma once

#include "media/AppError.h"
#include "media/MediaAsset.h"
#include "media/Player.h"
#include "model/Uuid.h"

#include <expected>
#include <filesystem>
#include <memory>
#include <span>
#include <stop_token>
#include <string_view>

namespace vantrix {

// The file-name extensions the editor opens, lower case: "mov", "mp4", "m4v". A name matches
// whatever the case of its extension.
std::span<const std::string_view> supportedExtensions();
bool hasSupportedExtension(const std::filesystem::path& path);

// An opened video: a fresh id per successful load (two loads of one file differ), the path as it
// was given, the probed asset and, once the video reaches the GUI thread, its player. The only
// way to make one is load().
//
// A plain value; thread-safe to copy and read. The player it points to is for the GUI thread.
struct LoadedVideo {
  Uuid id;
  std::filesystem::path path;
  std::shared_ptr<const MediaAsset> asset;
  // Plays the unedited source until the app installs an edited composition. Null until
  // attachPlayer(): load() runs on a worker thread, and a player belongs to the GUI thread. Each
  // load gets its own player. Released on the GUI thread whichever copy lets it go last.
  std::shared_ptr<Player> player;

  // Gives the video its player, paused at the start of the one-range pass-through composition
  // of the source. Call on the GUI thread, once the load's result is there. Fails only when that
  // composition cannot be built (compositionFailed, logged by the builder).
  std::expected<void, AppError> attachPlayer(Player::Options options = {});

  // Decides whether `path` can be edited and opens it. Checks, in order, each refusal logged at
  // info level in "vantrix.media" with the file name:
  //   extension not supported (by name only, the disk is not touched)
  //       -> "Rejecting unsupported file: NAME", unsupportedFile
  //   nothing at the path        -> "Supported file missing on disk: NAME", fileMoved
  //   container unreadable, damaged or truncated
  //                              -> "Failed to load asset: NAME", unsupportedFile
  //   no decodable video frames  -> "Asset has no usable video: NAME", unsupportedFile
  // Blocks on file I/O: call it off the GUI thread. When `stop` is triggered it returns promptly
  // with unsupportedFile and logs nothing; the caller that stopped it discards the result.
  static std::expected<LoadedVideo, AppError> load(const std::filesystem::path& path, std::stop_token stop = {});
};

}  // namespace vantrix
