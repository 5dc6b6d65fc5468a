#include "persistence/Session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <utility>
#include <vector>

namespace vantrix {
namespace {

std::vector<std::uint8_t> bytes(std::string_view s) { return {s.begin(), s.end()}; }

// Equal, and identical in every representation: the encoding spells out each time's value and
// timescale, the id, the bookmark bytes and the date's shortest round-trip digits.
void expectIdentical(const Session& a, const Session& b) {
  EXPECT_EQ(a, b);
  EXPECT_EQ(encodeSession(a).value(), encodeSession(b).value());
}

// The bookmark is the path "/home/ana/Vídeos/café?.mov", whose base64 has a "/" and padding; the
// date needs all 17 significant digits. The expected bytes are written by hand from the format.
TEST(SessionJson, GoldenBytes) {
  Session s;
  s.videoBookmark = bytes("/home/ana/V\xC3\xAD" "deos/caf\xC3\xA9?.mov");
  s.fileSize = 73400320;
  s.modificationDate = 753974400.123456789;
  s.trimStart = RationalTime(0, 1);
  s.trimEnd = RationalTime(5400000, 90000);
  s.segments = {{*Uuid::parse("6F1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A3"), {900000, 90000}, {1350000, 90000}, Speed::x4},
                {*Uuid::parse("0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d"), {2, 1}, {6, 2}, Speed::x16}};
  const std::string golden =
      R"({"schemaVersion":1,"videoBookmark":"L2hvbWUvYW5hL1bDrWRlb3MvY2Fmw6k\/Lm1vdg==","fileSize":73400320,)"
      R"("modificationDate":753974400.1234568,"trimStart":{"value":0,"timescale":1},)"
      R"("trimEnd":{"value":5400000,"timescale":90000},"segments":[)"
      R"({"id":"6F1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A3","start":{"value":900000,"timescale":90000},)"
      R"("end":{"value":1350000,"timescale":90000},"speed":4},)"
      R"({"id":"0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D","start":{"value":2,"timescale":1},)"
      R"("end":{"value":6,"timescale":2},"speed":16}]})";

  EXPECT_EQ(encodeSession(s).value(), golden);
  const auto decoded = decodeSession(golden);
  ASSERT_TRUE(decoded) << decoded.error().message;
  expectIdentical(*decoded, s);
  EXPECT_EQ(std::bit_cast<std::uint64_t>(decoded->modificationDate), 0x41c6785e400fcd6fu);
  EXPECT_EQ(decoded->segments[1].end.timescale(), 2);  // 6/2 is not reduced
}

TEST(SessionJson, ANonFiniteDateDoesNotEncode) {
  Session s;
  s.modificationDate = std::numeric_limits<double>::infinity();
  EXPECT_EQ(encodeSession(s).error().description, "the modification date is not a finite number");
}

// A valid document, varied one member at a time: {key, JSON text}; an empty text removes the member.
std::string doc(std::vector<std::pair<std::string, std::string>> changes = {}) {
  std::vector<std::pair<std::string, std::string>> members{
      {"schemaVersion", "1"},
      {"videoBookmark", R"("Ym9vaw==")"},
      {"fileSize", "10"},
      {"modificationDate", "5.5"},
      {"trimStart", R"({"value":0,"timescale":1})"},
      {"trimEnd", R"({"value":900000,"timescale":90000})"},
      {"segments", R"([{"id":"6F1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A3","start":{"value":90000,"timescale":90000},)"
                   R"("end":{"value":180000,"timescale":90000},"speed":4}])"}};
  for (auto& [key, value] : changes) {
    const auto it = std::ranges::find(members, key, &std::pair<std::string, std::string>::first);
    if (it == members.end())
      members.emplace_back(key, value);
    else
      it->second = value;
  }
  std::string out;
  for (const auto& [key, value] : members)
    if (!value.empty()) out += (out.empty() ? "{\"" : ",\"") + key + "\":" + value;
  return out + "}";
}

// The one segment with `members` after its id.
std::string segment(std::string_view members) {
  return R"([{"id":"6F1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A3",)" + std::string(members) + "}]";
}
const std::string kBounds = R"("start":{"value":90000,"timescale":90000},"end":{"value":180000,"timescale":90000})";
std::string speed(std::string_view s) { return segment(kBounds + ",\"speed\":" + std::string(s)); }

TEST(SessionJson, AnyViolationMakesTheWholeFileUndecodable) {
  const char* const kNotASpeed = "segments[0].speed: not a speed (2, 4, 8 or 16)";
  const char* const kBadBase64 = "videoBookmark: not padded standard base64";
  const struct {
    std::string text;
    const char* error;  // the decoder's message names the member
  } cases[] = {
      {doc({{"schemaVersion", ""}}), "schemaVersion: missing"},
      {doc({{"videoBookmark", ""}}), "videoBookmark: missing"},
      {doc({{"fileSize", ""}}), "fileSize: missing"},
      {doc({{"modificationDate", ""}}), "modificationDate: missing"},
      {doc({{"trimStart", ""}}), "trimStart: missing"},
      {doc({{"trimEnd", ""}}), "trimEnd: missing"},
      {doc({{"segments", ""}}), "segments: missing"},
      {doc({{"trimStart", R"({"timescale":1})"}}), "trimStart.value: missing"},
      {doc({{"trimEnd", R"({"value":1})"}}), "trimEnd.timescale: missing"},
      {doc({{"segments", "[{" + kBounds + R"(,"speed":2}])"}}), "segments[0].id: missing"},
      {doc({{"segments", segment(R"("end":{"value":1,"timescale":1},"speed":2)")}}), "segments[0].start: missing"},
      {doc({{"segments", segment(R"("start":{"value":1,"timescale":1},"speed":2)")}}), "segments[0].end: missing"},
      {doc({{"segments", segment(kBounds)}}), "segments[0].speed: missing"},
      {doc({{"fileSize", R"("10")"}}), "fileSize: not an integer"},
      {doc({{"schemaVersion", "1.5"}}), "schemaVersion: not an integer"},
      {doc({{"fileSize", "10.0"}}), "fileSize: not an integer"},
      {doc({{"fileSize", "1e1"}}), "fileSize: not an integer"},
      {doc({{"fileSize", "true"}}), "fileSize: not an integer"},
      {doc({{"trimStart", R"({"value":1.5,"timescale":1})"}}), "trimStart.value: not an integer"},
      {doc({{"trimEnd", R"({"value":1,"timescale":9223372036854775808})"}}),
       "trimEnd.timescale: integer out of the signed 64-bit range"},
      {doc({{"segments", "{}"}}), "segments: not an array"},
      {doc({{"trimStart", "[0,1]"}}), "trimStart: not an object"},
      {doc({{"segments", "[1]"}}), "segments[0]: not an object"},
      {doc({{"videoBookmark", "5"}}), "videoBookmark: not a string"},
      {doc({{"modificationDate", R"("5.5")"}}), "modificationDate: not a number"},
      {doc({{"modificationDate", "null"}}), "modificationDate: not a number"},
      {doc({{"segments", R"([{"id":5,)" + kBounds + R"(,"speed":2}])"}}), "segments[0].id: not a string"},
      {doc({{"segments", R"([{"id":"6F1C2A9E",)" + kBounds + R"(,"speed":2}])"}}), "segments[0].id: not a UUID"},
      {doc({{"segments", speed("1")}}), kNotASpeed},
      {doc({{"segments", speed("3")}}), kNotASpeed},
      {doc({{"segments", speed("6")}}), kNotASpeed},
      {doc({{"segments", speed("32")}}), kNotASpeed},
      {doc({{"segments", speed("-2")}}), kNotASpeed},
      {doc({{"segments", speed("4.0")}}), "segments[0].speed: not an integer"},
      {doc({{"segments", speed(R"("4")")}}), "segments[0].speed: not an integer"},
      {doc({{"videoBookmark", R"("Ym9vaw")"}}), kBadBase64},
      {doc({{"videoBookmark", R"("Ym9v aw==")"}}), kBadBase64},
      {doc({{"videoBookmark", R"("Ym9v\naw==")"}}), kBadBase64},
      {doc({{"videoBookmark", R"("Ym9-aw==")"}}), kBadBase64},
      {doc({{"videoBookmark", R"("Ym9vax==")"}}), kBadBase64},
      {"[]", "document: the top level is not an object"},
      {"1", "document: the top level is not an object"},
      {R"("session")", "document: the top level is not an object"},
      {"", "document: not valid JSON"},
      {doc().substr(0, 40), "document: not valid JSON"},
      {doc() + "x", "document: not valid JSON"},
      {doc() + "/* note */", "document: not valid JSON"},
      {doc({{"modificationDate", "1e400"}}), "document: not valid JSON"},
      {doc({{"note", "\"\xC3\x28\""}}), "document: not valid JSON"},  // invalid UTF-8
  };
  for (const auto& c : cases) {
    const auto decoded = decodeSession(c.text);
    ASSERT_FALSE(decoded) << c.text;
    EXPECT_EQ(decoded.error().message, c.error) << c.text;
  }
}

TEST(SessionJson, AnyMemberOrderUnknownMembersAndEscapesDecode) {
  Session base;
  base.videoBookmark = bytes("book");
  base.fileSize = 10;
  base.modificationDate = 5.5;
  base.trimStart = {0, 1};
  base.trimEnd = {900000, 90000};
  base.segments = {{*Uuid::parse("6F1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A3"), {90000, 90000}, {180000, 90000}, Speed::x4}};
  const auto with = [&](auto change) {
    Session s = base;
    change(s);
    return s;
  };
  const struct {
    std::string text;
    Session expected;
  } cases[] = {
      {R"({"segments":[{"speed":4,"end":{"timescale":90000,"value":180000},"start":{"timescale":90000,"value":90000},)"
       R"("id":"6f1c2a9e-3b7d-4c55-9a0e-2d4b8f61c7a3"}],"trimEnd":{"timescale":90000,"value":900000},)"
       R"("trimStart":{"timescale":1,"value":0},"modificationDate":5.5,"fileSize":10,"videoBookmark":"Ym9vaw==",)"
       R"("schemaVersion":1})",
       base},
      {doc({{"note", R"({"deep":[1,{"x":null}]})"}, {"trimEnd", R"({"extra":true,"value":900000,"timescale":90000})"},
            {"segments", segment(kBounds + R"(,"speed":4,"colour":"red")")}}),
       base},
      {doc({{"videoBookmark", R"("Ym9v\/w==")"}}), with([](Session& s) { s.videoBookmark = bytes("boo\xFF"); })},
      {doc({{"videoBookmark", R"("Ym9v/w==")"}}), with([](Session& s) { s.videoBookmark = bytes("boo\xFF"); })},
      {doc({{"videoBookmark", R"("\u0059m9vaw==")"}}), base},
      {doc({{"videoBookmark", R"("")"}}), with([](Session& s) { s.videoBookmark.clear(); })},
      {doc({{"segments", speed("2")}}), with([](Session& s) { s.segments[0].speed = Speed::x2; })},
      {doc({{"segments", speed("8")}}), with([](Session& s) { s.segments[0].speed = Speed::x8; })},
      {doc({{"segments", speed("16")}}), with([](Session& s) { s.segments[0].speed = Speed::x16; })},
      {doc({{"schemaVersion", "2"}}), with([](Session& s) { s.schemaVersion = 2; })},  // the store refuses it
      {doc({{"modificationDate", "753974400"}}), with([](Session& s) { s.modificationDate = 753974400; })},
      {doc({{"modificationDate", "7.539744E8"}}), with([](Session& s) { s.modificationDate = 753974400; })},
      {doc({{"segments", "[]"}}), with([](Session& s) { s.segments.clear(); })},
      {doc({{"trimStart", R"({"value":-5,"timescale":0})"}}), with([](Session& s) { s.trimStart = {-5, 0}; })},
      {"\xEF\xBB\xBF \n" + doc() + "\n", base},  // byte-order mark and whitespace, as JSON parsers allow
  };
  for (const auto& c : cases) {
    const auto decoded = decodeSession(c.text);
    ASSERT_TRUE(decoded) << decoded.error().message << "\n" << c.text;
    SCOPED_TRACE(c.text);
    expectIdentical(*decoded, c.expected);
  }
}

}  // namespace
}  // namespace vantrix
