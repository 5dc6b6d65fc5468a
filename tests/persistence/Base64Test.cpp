#include "persistence/Base64.h"

#include <gtest/gtest.h>

namespace vantrix {
namespace {

std::vector<std::uint8_t> bytes(std::string_view s) { return {s.begin(), s.end()}; }

TEST(Base64, Rfc4648VectorsBothWays) {
  const struct {
    std::string_view plain, encoded;
  } cases[] = {{"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},        {"foo", "Zm9v"},
               {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}, {"\xFB\xFF\xBF", "+/+/"}};
  for (const auto& c : cases) {
    EXPECT_EQ(encodeBase64(bytes(c.plain)), c.encoded) << c.plain;
    EXPECT_EQ(decodeBase64(c.encoded), bytes(c.plain)) << c.encoded;
  }
}

TEST(Base64, RefusesEverythingButCanonicalPaddedText) {
  for (std::string_view bad : std::initializer_list<std::string_view>{"Zg", "Zg=", "Zm8", "Zm9vY", "Zg==Zg==", "Z===", "====", "Zh==", "Zm9=", "Zm-v",
                               "Zm_v", "Zm9v\n", " Zm9v", "Zm9v ", "Zg=a", std::string_view("Zg\0=", 4), "\xC3\xA9Zg="}) {
    EXPECT_FALSE(decodeBase64(bad)) << bad;
  }
}

}  // namespace
}  // namespace vantrix
