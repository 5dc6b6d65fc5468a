#include "persistence/Session.h"

#include "persistence/Base64.h"
#include "persistence/JsonDouble.h"
#include "persistence/ModelJson.h"

#include <optional>

namespace vantrix {
namespace {

using json::Decoded;
using json::decodeError;
using json::decodeMember;
using json::Json;

constexpr std::string_view kDateKey = "modificationDate";

// The platform encoder escapes "/" in strings; nlohmann does not. A "/" can only occur inside a
// string in JSON text (never in a number, a literal or the structure), and nlohmann never writes
// it as part of an escape sequence, so escaping every "/" of the output is exactly that rule.
std::string escapeSlashes(const std::string& text) {
  std::string out;
  out.reserve(text.size() + text.size() / 8);
  for (char c : text) {
    if (c == '/') out += '\\';
    out += c;
  }
  return out;
}

// The document is built in member order as an ordered_json and written member by member so that
// the date can take its platform form, which nlohmann's own float output does not produce
// (it writes 753974400 as "753974400.0").
std::string writeDocument(const Json& document, const std::string& dateText) {
  std::string out = "{";
  bool first = true;
  for (const auto& [key, value] : document.items()) {
    if (!first) out += ',';
    first = false;
    out += Json(key).dump();
    out += ':';
    out += key == kDateKey ? dateText : value.dump();
  }
  out += '}';
  return escapeSlashes(out);
}

Decoded<std::vector<std::uint8_t>> bookmarkFromJson(const Json& j, std::string_view path) {
  if (!j.is_string()) return std::unexpected(decodeError(path, "not a string"));
  auto bytes = decodeBase64(j.get_ref<const std::string&>());
  if (!bytes) return std::unexpected(decodeError(path, "not padded standard base64"));
  return std::move(*bytes);
}

Decoded<double> dateFromJson(const Json& j, std::string_view path) {
  // Any JSON number; integral dates are written without a fraction and read as integers here.
  // The conversions round to nearest, as reading the same digits as a double would.
  if (j.is_number_unsigned()) return static_cast<double>(j.get<std::uint64_t>());
  if (j.is_number_integer()) return static_cast<double>(j.get<std::int64_t>());
  if (j.is_number_float()) return j.get<double>();  // finite: the parser refuses overflowing numbers
  return std::unexpected(decodeError(path, "not a number"));
}

Decoded<std::vector<SpeedSegment>> segmentsFromJson(const Json& j, std::string_view path) {
  if (!j.is_array()) return std::unexpected(decodeError(path, "not an array"));
  std::vector<SpeedSegment> segments;
  segments.reserve(j.size());
  for (std::size_t i = 0; i < j.size(); ++i) {
    auto segment = json::segmentFromJson(j[i], std::string(path) + "[" + std::to_string(i) + "]");
    if (!segment) return std::unexpected(segment.error());
    segments.push_back(*segment);
  }
  return segments;
}

Decoded<Session> sessionFromJson(const Json& doc) {
  if (!doc.is_object()) return std::unexpected(decodeError("", "the top level is not an object"));
  Session s;
  const auto version = decodeMember(doc, "schemaVersion", "", json::int64FromJson);
  if (!version) return std::unexpected(version.error());
  auto bookmark = decodeMember(doc, "videoBookmark", "", bookmarkFromJson);
  if (!bookmark) return std::unexpected(bookmark.error());
  const auto size = decodeMember(doc, "fileSize", "", json::int64FromJson);
  if (!size) return std::unexpected(size.error());
  const auto date = decodeMember(doc, kDateKey, "", dateFromJson);
  if (!date) return std::unexpected(date.error());
  const auto trimStart = decodeMember(doc, "trimStart", "", json::rationalTimeFromJson);
  if (!trimStart) return std::unexpected(trimStart.error());
  const auto trimEnd = decodeMember(doc, "trimEnd", "", json::rationalTimeFromJson);
  if (!trimEnd) return std::unexpected(trimEnd.error());
  auto segments = decodeMember(doc, "segments", "", segmentsFromJson);
  if (!segments) return std::unexpected(segments.error());

  s.schemaVersion = *version;
  s.videoBookmark = std::move(*bookmark);
  s.fileSize = *size;
  s.modificationDate = *date;
  s.trimStart = *trimStart;
  s.trimEnd = *trimEnd;
  s.segments = std::move(*segments);
  return s;
}

}  // namespace

std::expected<std::string, SessionEncodeError> encodeSession(const Session& session) {
  const std::optional<std::string> date = jsonTextOfDouble(session.modificationDate);
  if (!date) return std::unexpected(SessionEncodeError{"the modification date is not a finite number"});
  try {
    Json document = Json::object();
    document["schemaVersion"] = session.schemaVersion;
    document["videoBookmark"] = encodeBase64(session.videoBookmark);
    document["fileSize"] = session.fileSize;
    document[kDateKey] = nullptr;  // written by writeDocument
    document["trimStart"] = json::toJson(session.trimStart);
    document["trimEnd"] = json::toJson(session.trimEnd);
    Json segments = Json::array();
    for (const SpeedSegment& s : session.segments) segments.push_back(json::toJson(s));
    document["segments"] = std::move(segments);
    return writeDocument(document, *date);
  } catch (const nlohmann::json::exception& e) {  // not expected: every string is ASCII
    return std::unexpected(SessionEncodeError{e.what()});
  }
}

std::expected<Session, SessionDecodeError> decodeSession(std::string_view bytes) {
  try {
    const Json doc = Json::parse(bytes.begin(), bytes.end(), nullptr, /*allow_exceptions=*/false);
    if (doc.is_discarded()) return std::unexpected(SessionDecodeError{"document: not valid JSON"});
    auto session = sessionFromJson(doc);
    if (!session) return std::unexpected(SessionDecodeError{std::move(session.error().message)});
    return std::move(*session);
  } catch (const nlohmann::json::exception& e) {  // not expected: every access is type-checked
    return std::unexpected(SessionDecodeError{e.what()});
  }
}

}  // namespace vantrix
