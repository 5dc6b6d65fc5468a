#pragma once

// Internal to the fixture library: opening a file's first stream of one kind and decoding it
// to the end, shared by the frame and tone readers.

#include "FfmpegHandles.h"

#include <filesystem>
#include <functional>
#include <optional>

namespace vantrix::testing {

struct OpenedStream {
  InputContextPtr input;
  CodecContextPtr decoder;
  AVStream* stream = nullptr;  // owned by input
};

// The first stream of `type` with an opened decoder; attached pictures do not count as video.
// nullopt when the file cannot be opened or probed, has no such stream or no decoder for it.
std::optional<OpenedStream> openFirstStream(const std::filesystem::path& file, AVMediaType type);

// Decodes the stream to its end, handing each frame to onFrame (valid during the call only).
// Stops at the first demuxing or decoding error; returns whether the end was reached cleanly.
bool decodeAll(OpenedStream& opened, const std::function<void(const AVFrame&)>& onFrame);

}  // namespace vantrix::testing
