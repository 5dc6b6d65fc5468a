#pragma once

// What the editor does with a video the user opens, as one checked run for the media fuzzer and
// for the test that replays its seeds and findings: load and probe the file, build the
// pass-through composition the player starts with and one with a sped-up stretch, read the first
// pictures and some sound through the player's reader, seek to the middle, and make a few
// filmstrip stills.
//
// A fault in the media layer shows up as a crash or a sanitizer report inside the run; a broken
// promise of its interfaces (listed in MediaOpening.cpp) as the returned violation.

#include "media/AppError.h"

#include <filesystem>
#include <optional>
#include <string>

namespace vantrix::fuzz {

struct OpeningReport {
  std::optional<AppError> refusal;  // why the loader refused the file; nullopt when it opened
  int framesRead = 0;               // pictures that came out of the player's reader
  int thumbnails = 0;               // filmstrip stills delivered
  std::optional<std::string> violation;
};

// Blocking; runs on the calling thread. `path` must name an existing file.
OpeningReport openLikeTheEditor(const std::filesystem::path& path);

}  // namespace vantrix::fuzz
