#include "persistence/Base64.h"
#include "persistence/JsonDouble.h"
#include "persistence/Session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <limits>
#include <map>
#include <utility>
#include <vector>

namespace vantrix {
namespace {

std::vector<std::uint8_t> bytes(std::string_view s) { return {s.begin(), s.end()}; }
std::uint64_t bitsOf(double d) { return std::bit_cast<std::uint64_t>(d); }

// Equal, and identical in every representation: the encoding spells out each time's value and
// timescale, the id, the bookmark bytes and the date's shortest round-trip digits.
void expectIdentical(const Session& a, const Session& b) {
  EXPECT_EQ(a, b);
  EXPECT_EQ(encodeSession(a).value(), encodeSession(b).value());
}

TEST(Base64, Rfc4648VectorsBothWaysAndNothingButCanonicalPaddedText) {
  // clang-format off
  const std::pair<std::string_view, std::string_view> vectors[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"}, {"\xFB\xFF\xBF", "+/+/"}};
  // clang-format on
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(encodeBase64(bytes(plain)), encoded) << plain;
    EXPECT_EQ(decodeBase64(encoded), bytes(plain)) << encoded;
  }
  for (std::string_view bad : {"Zg", "Zg=", "Zm9vY", "Zg==Zg==", "Z===", "====", "Zh==", "Zm9=", "Zm-v", "Zm_v",
                               "Zm9v\n", " Zm9v", "Zg=a", "\xC3\xA9Zg="})
    EXPECT_FALSE(decodeBase64(bad)) << bad;
  EXPECT_FALSE(decodeBase64(std::string_view("Zg\0=", 4)));
}

// The texts of the original platform's encoder (shortest digits, exponential only above 2^53 or
// below 1e-4); each, written as a session's date, reads back to the identical double.
TEST(JsonDouble, WritesThePlatformsShortestFormAndReadsBackBitForBit) {
  // clang-format off
  const std::pair<double, const char*> cases[] = {
      {753974400.0, "753974400"}, {0.1 + 0.2, "0.30000000000000004"}, {-0.0, "-0.0"}, {0.0001, "0.0001"},
      {9007199254740992.0, "9007199254740992"}, {9007199254740994.0, "9.007199254740994e+15"}, {1e16, "1e+16"},
      {-2.5e-7, "-2.5e-07"}, {5e-324, "5e-324"}, {1.7976931348623157e308, "1.7976931348623157e+308"}};
  // clang-format on
  for (const auto& [value, text] : cases) {
    EXPECT_EQ(jsonTextOfDouble(value), text);
    Session s;
    s.modificationDate = value;
    const auto decoded = decodeSession(encodeSession(s).value());
    ASSERT_TRUE(decoded) << text;
    EXPECT_EQ(bitsOf(decoded->modificationDate), bitsOf(value)) << text;
  }
  EXPECT_FALSE(jsonTextOfDouble(std::numeric_limits<double>::infinity()));
  EXPECT_FALSE(jsonTextOfDouble(std::numeric_limits<double>::quiet_NaN()));
}

// The bookmark "/home/ana/Vídeos/café?.mov" has a "/" and padding in its base64; the date needs all
// 17 significant digits. The expected bytes are written by hand from the format.
TEST(SessionJson, GoldenBytes) {
  Session s;
  s.videoBookmark = bytes(
      "/home/ana/V\xC3\xAD"
      "deos/caf\xC3\xA9?.mov");
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
  EXPECT_EQ(bitsOf(decoded->modificationDate), 0x41c6785e400fcd6fu);
  EXPECT_EQ(decoded->segments[1].end.timescale(), 2);  // 6/2 is not reduced
}

// A valid document (members in name order), varied one member at a time: {key, JSON text}; an
// empty text removes the member.
std::string doc(const std::map<std::string, std::string>& changes = {}) {
  std::map<std::string, std::string> members{
      {"schemaVersion", "1"},
      {"videoBookmark", R"("Ym9vaw==")"},
      {"fileSize", "10"},
      {"modificationDate", "5.5"},
      {"trimStart", R"({"value":0,"timescale":1})"},
      {"trimEnd", R"({"value":900000,"timescale":90000})"},
      {"segments", R"([{"id":"6F1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A3","start":{"value":90000,"timescale":90000},)"
                   R"("end":{"value":180000,"timescale":90000},"speed":4}])"}};
  for (const auto& [key, value] : changes) members[key] = value;
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
std::string speed(std::string_view s) { return doc({{"segments", segment(kBounds + ",\"speed\":" + std::string(s))}}); }
std::string bookmark(std::string_view s) { return doc({{"videoBookmark", std::string(s)}}); }

TEST(SessionJson, AnyViolationMakesTheWholeFileUndecodable) {
  const char* const kNotAnObject = "document: the top level is not an object";
  const char* const kNotJson = "document: not valid JSON";
  std::vector<std::pair<std::string, std::string>> cases = {
      {doc({{"trimStart", R"({"timescale":1})"}}), "trimStart.value: missing"},
      {doc({{"trimEnd", R"({"value":1})"}}), "trimEnd.timescale: missing"},
      {doc({{"segments", "[{" + kBounds + R"(,"speed":2}])"}}), "segments[0].id: missing"},
      {doc({{"segments", segment(R"("end":{"value":1,"timescale":1},"speed":2)")}}), "segments[0].start: missing"},
      {doc({{"segments", segment(R"("start":{"value":1,"timescale":1},"speed":2)")}}), "segments[0].end: missing"},
      {doc({{"segments", segment(kBounds)}}), "segments[0].speed: missing"},
      {doc({{"fileSize", R"("10")"}}), "fileSize: not an integer"},
      {doc({{"fileSize", "10.0"}}), "fileSize: not an integer"},
      {doc({{"trimStart", R"({"value":1.5,"timescale":1})"}}), "trimStart.value: not an integer"},
      {doc({{"trimEnd", R"({"value":1,"timescale":9223372036854775808})"}}),
       "trimEnd.timescale: integer out of the signed 64-bit range"},
      {doc({{"segments", "{}"}}), "segments: not an array"},
      {doc({{"trimStart", "[0,1]"}}), "trimStart: not an object"},
      {doc({{"segments", "[1]"}}), "segments[0]: not an object"},
      {bookmark("5"), "videoBookmark: not a string"},
      {doc({{"modificationDate", R"("5.5")"}}), "modificationDate: not a number"},
      {doc({{"segments", R"([{"id":5,)" + kBounds + R"(,"speed":2}])"}}), "segments[0].id: not a string"},
      {doc({{"segments", R"([{"id":"6F1C2A9E",)" + kBounds + R"(,"speed":2}])"}}), "segments[0].id: not a UUID"},
      {speed("4.0"), "segments[0].speed: not an integer"},
      {bookmark(R"("Ym9vaw")"), "videoBookmark: not padded standard base64"},
      {"[]", kNotAnObject},
      {R"("session")", kNotAnObject},
      {doc().substr(0, 40), kNotJson},
      {doc() + "x", kNotJson},
      {doc({{"modificationDate", "1e400"}}), kNotJson},
      {doc({{"note", "\"\xC3\x28\""}}), kNotJson},  // invalid UTF-8
  };
  for (const char* key :
       {"schemaVersion", "videoBookmark", "fileSize", "modificationDate", "trimStart", "trimEnd", "segments"})
    cases.emplace_back(doc({{key, ""}}), std::string(key) + ": missing");
  for (const char* value : {"1", "3", "6", "32", "-2"})
    cases.emplace_back(speed(value), "segments[0].speed: not a speed (2, 4, 8 or 16)");
  for (const auto& [text, error] : cases) {
    const auto decoded = decodeSession(text);
    ASSERT_FALSE(decoded) << text;
    EXPECT_EQ(decoded.error().message, error) << text;
  }
}

TEST(SessionJson, AnyMemberOrderUnknownMembersAndEscapesDecode) {
  const Session base = decodeSession(doc()).value();  // the golden bytes pin what it holds
  const auto with = [&](auto change) {
    Session s = base;
    change(s);
    return s;
  };
  const Session endsInFF = with([](Session& s) { s.videoBookmark = bytes("boo\xFF"); });
  const std::pair<std::string, Session> cases[] = {
      {R"({"segments":[{"speed":4,"end":{"timescale":90000,"value":180000},"start":{"timescale":90000,"value":90000},)"
       R"("id":"6f1c2a9e-3b7d-4c55-9a0e-2d4b8f61c7a3"}],"trimEnd":{"timescale":90000,"value":900000},)"
       R"("trimStart":{"timescale":1,"value":0},"modificationDate":5.5,"fileSize":10,"videoBookmark":"Ym9vaw==",)"
       R"("schemaVersion":1})",
       base},
      {doc({{"note", R"({"deep":[1,{"x":null}]})"},
            {"trimEnd", R"({"extra":true,"value":900000,"timescale":90000})"},
            {"segments", segment(kBounds + R"(,"speed":4,"colour":"red")")}}),
       base},
      {bookmark(R"("Ym9v\/w==")"), endsInFF},
      {bookmark(R"("Ym9v/w==")"), endsInFF},
      {speed("2"), with([](Session& s) { s.segments[0].speed = Speed::x2; })},
      {speed("8"), with([](Session& s) { s.segments[0].speed = Speed::x8; })},
      {doc({{"modificationDate", "7.539744E8"}}), with([](Session& s) { s.modificationDate = 753974400; })},
      // No domain rule is checked while decoding.
      {doc({{"trimStart", R"({"value":-5,"timescale":0})"}}), with([](Session& s) {
         s.trimStart = {-5, 0};
       })},
      {"\xEF\xBB\xBF \n" + doc() + "\n", base},  // byte-order mark and whitespace, as JSON parsers allow
  };
  for (const auto& [text, expected] : cases) {
    const auto decoded = decodeSession(text);
    ASSERT_TRUE(decoded) << decoded.error().message << "\n" << text;
    SCOPED_TRACE(text);
    expectIdentical(*decoded, expected);
  }
}

}  // namespace
}  // namespace vantrix
