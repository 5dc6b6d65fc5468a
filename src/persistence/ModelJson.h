#pragma once

// JSON of the editing model's values, as stored in session files (Parts 1.1, 1.2):
//   RationalTime  {"value":450000,"timescale":90000}
//   Speed         2, 4, 8 or 16
//   SpeedSegment  {"id":"6F1C…C7A3","start":{…},"end":{…},"speed":4}
// Writing produces members in that order. Reading accepts members in any order, ignores unknown
// ones, requires every listed one with its exact JSON type (integers must be JSON integers that
// fit 64 bits; 1.0 is not an integer) and checks no range: a zero timescale or a reversed segment
// reads as it stands and is refused later by the restore (SessionRestore.h).
//
// Nothing here throws: failures come back as a DecodeError naming the member ("segments[1].speed").

#include "model/RationalTime.h"
#include "model/Speed.h"
#include "model/SpeedSegment.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <expected>
#include <string>
#include <string_view>

namespace vantrix::json {

using Json = nlohmann::ordered_json;

struct DecodeError {
  std::string message;  // "<member path>: <what is wrong>"
};

template <typename T>
using Decoded = std::expected<T, DecodeError>;

Json toJson(RationalTime t);
Json toJson(Speed s);
Json toJson(const SpeedSegment& s);

// `path` names the value in error messages ("trimStart", "segments[0].end").
Decoded<RationalTime> rationalTimeFromJson(const Json& j, std::string_view path);
Decoded<Speed> speedFromJson(const Json& j, std::string_view path);
Decoded<SpeedSegment> segmentFromJson(const Json& j, std::string_view path);
Decoded<Uuid> uuidFromJson(const Json& j, std::string_view path);  // 8-4-4-4-12 hex, either case

// Building blocks shared with the session decoder.
Decoded<std::int64_t> int64FromJson(const Json& j, std::string_view path);
DecodeError decodeError(std::string_view path, std::string_view what);
std::string memberPath(std::string_view path, std::string_view key);  // "segments[0]" + "end"
Decoded<const Json*> requiredMember(const Json& object, std::string_view key, std::string_view path);

// The member `key` of the object at `path`, decoded by `decode(member, memberPath)`; an error when
// the value is not an object or lacks the member.
template <typename Decode>
auto decodeMember(const Json& object, std::string_view key, std::string_view path, Decode decode)
    -> decltype(decode(object, std::string_view())) {
  const Decoded<const Json*> member = requiredMember(object, key, path);
  if (!member) return std::unexpected(member.error());
  return decode(**member, memberPath(path, key));
}

}  // namespace vantrix::json
