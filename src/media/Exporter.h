#pragma once

#include "media/AppError.h"
#include "media/Composition.h"

#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <stop_token>
#include <string>

// Writes a composition to an MP4 file: H.264 High (CRF 18, preset medium, yuv420p, the source's
// colour description and display matrix), AAC 48 kHz 192 kb/s in the source's channel layout (no
// audio track for a silent source), moov at the front. The file appears at the destination only
// when the export succeeded: it is written beside it under a temporary name and renamed at the
// end, and a cancelled or failed export leaves nothing behind.
//
// Stateless; export() blocks (decoding and encoding run on their own threads inside it) and may be
// called from any thread except the GUI thread.
namespace vantrix::Exporter {

enum class Outcome { finished, cancelled };

// Progress in [0, 1] from the output position, at most every 0.1 s, never decreasing, and exactly
// 1.0 once the file is complete (a stop requested even then still ends in `cancelled`). Called on
// the exporting thread: the receiver hops to its own thread.
using ProgressCallback = std::function<void(double)>;

// Exports `composition` to `destination` (replacing a file there only on success). Returns
// `finished`, or `cancelled` once `stop` was triggered (even after the encoder finished: the file is
// deleted then too), or an AppError: diskFull when a write failed with "no space left on device"
// at any depth of its causes, exportFailed otherwise (its cause says what failed;
// MediaError::Code::exportUnavailable when no encoder or muxer could be set up).
std::expected<Outcome, AppError> exportComposition(std::shared_ptr<const Composition> composition,
                                                   const std::filesystem::path& destination,
                                                   const ProgressCallback& progress, std::stop_token stop);

// The file name the save dialog proposes for `source`: its base name (all but the last extension)
// + "-vantrix.mp4", or "-vantrix N.mp4" for the first N = 2, 3, ... not in `avoid`.
std::string suggestedOutputName(const std::filesystem::path& source, const std::set<std::string>& avoid = {});

}  // namespace vantrix::Exporter
