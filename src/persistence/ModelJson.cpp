#include "persistence/ModelJson.h"

#include <limits>

namespace vantrix::json {

std::string memberPath(std::string_view path, std::string_view key) {
  std::string out(path);
  if (!out.empty()) out += '.';
  out += key;
  return out;
}

DecodeError decodeError(std::string_view path, std::string_view what) {
  std::string message(path.empty() ? std::string_view("document") : path);
  message += ": ";
  message += what;
  return {std::move(message)};
}

Json toJson(RationalTime t) {
  Json j = Json::object();
  j["value"] = t.value();
  j["timescale"] = t.timescale();
  return j;
}

Json toJson(Speed s) { return Json(rawValue(s)); }

Json toJson(const SpeedSegment& s) {
  Json j = Json::object();
  j["id"] = s.id.toString();
  j["start"] = toJson(s.start);
  j["end"] = toJson(s.end);
  j["speed"] = toJson(s.speed);
  return j;
}

Decoded<const Json*> requiredMember(const Json& object, std::string_view key, std::string_view path) {
  if (!object.is_object()) return std::unexpected(decodeError(path, "not an object"));
  const auto it = object.find(key);
  if (it == object.end()) return std::unexpected(decodeError(memberPath(path, key), "missing"));
  return &*it;
}

Decoded<std::int64_t> int64FromJson(const Json& j, std::string_view path) {
  if (j.is_number_unsigned()) {
    const auto u = j.get<std::uint64_t>();
    if (u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
      return std::unexpected(decodeError(path, "integer out of the signed 64-bit range"));
    return static_cast<std::int64_t>(u);
  }
  if (j.is_number_integer()) return j.get<std::int64_t>();
  return std::unexpected(decodeError(path, "not an integer"));
}

Decoded<RationalTime> rationalTimeFromJson(const Json& j, std::string_view path) {
  const auto value = decodeMember(j, "value", path, int64FromJson);
  if (!value) return std::unexpected(value.error());
  const auto timescale = decodeMember(j, "timescale", path, int64FromJson);
  if (!timescale) return std::unexpected(timescale.error());
  return RationalTime(*value, *timescale);
}

Decoded<Speed> speedFromJson(const Json& j, std::string_view path) {
  const auto raw = int64FromJson(j, path);
  if (!raw) return std::unexpected(raw.error());
  const auto speed = speedFromRawValue(*raw);
  if (!speed) return std::unexpected(decodeError(path, "not a speed (2, 4, 8 or 16)"));
  return *speed;
}

Decoded<Uuid> uuidFromJson(const Json& j, std::string_view path) {
  if (!j.is_string()) return std::unexpected(decodeError(path, "not a string"));
  const auto id = Uuid::parse(j.get_ref<const std::string&>());
  if (!id) return std::unexpected(decodeError(path, "not a UUID"));
  return *id;
}

Decoded<SpeedSegment> segmentFromJson(const Json& j, std::string_view path) {
  const auto id = decodeMember(j, "id", path, uuidFromJson);
  if (!id) return std::unexpected(id.error());
  const auto start = decodeMember(j, "start", path, rationalTimeFromJson);
  if (!start) return std::unexpected(start.error());
  const auto end = decodeMember(j, "end", path, rationalTimeFromJson);
  if (!end) return std::unexpected(end.error());
  const auto speed = decodeMember(j, "speed", path, speedFromJson);
  if (!speed) return std::unexpected(speed.error());
  return SpeedSegment{*id, *start, *end, *speed};
}

}  // namespace vantrix::json
