#pragma once

// The persisted edit state of one video and its JSON file format.
//
// File encoding: one compact JSON object, members in the order of the fields below, nested
// objects in their own order (ModelJson.h); every "/" in a string written "\/"; the date in the
// platform's shortest round-trip form (JsonDouble.h); no byte-order mark, no trailing newline:
//   {"schemaVersion":1,"videoBookmark":"L3Rt…","fileSize":73400320,"modificationDate":753974400.123,
//    "trimStart":{"value":0,"timescale":1},"trimEnd":{…},"segments":[…]}
// File decoding: members in any order, unknown members ignored, all seven required with their
// JSON types ("videoBookmark" strict base64, ModelJson.h for the rest); any violation makes the
// whole file undecodable. No domain rule is checked here: the version and fingerprint are checked
// by SessionStore, the timeline invariants by restoreTimeline (SessionRestore.h).
//
// Plain values and free functions; thread-safe; nothing throws.

#include "model/RationalTime.h"
#include "model/SpeedSegment.h"

#include <cstdint>
#include <expected>
#include <string>
#include <string_view>
#include <vector>

namespace vantrix {

struct Session {
  static constexpr std::int64_t kCurrentSchemaVersion = 1;

  std::int64_t schemaVersion = kCurrentSchemaVersion;
  // Opaque handle of the video file: here the UTF-8 bytes of its absolute path (Bookmark.h).
  std::vector<std::uint8_t> videoBookmark;
  std::int64_t fileSize = 0;
  // Seconds since 2001-01-01 00:00:00 UTC; compared for exact equality on load.
  double modificationDate = 0;
  RationalTime trimStart;
  RationalTime trimEnd;
  std::vector<SpeedSegment> segments;  // in the timeline's order

  friend bool operator==(const Session&, const Session&) = default;
};

struct SessionEncodeError {
  std::string description;
};

struct SessionDecodeError {
  std::string message;  // which member and what is wrong, for diagnostics and tests
};

// Fails only for a date that has no JSON form (infinite or NaN).
std::expected<std::string, SessionEncodeError> encodeSession(const Session& session);
std::expected<Session, SessionDecodeError> decodeSession(std::string_view bytes);

}  // namespace vantrix
