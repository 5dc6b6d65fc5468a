#pragma once

#include "media/AppError.h"
#include "media/MediaAsset.h"
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
// was given, and the probed asset. The only way to make one is load().
//
// A plain value; thread-safe to copy and read.
struct LoadedVideo {
  Uuid id;
  std::filesystem::path path;
  std::shared_ptr<const MediaAsset> asset;

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
