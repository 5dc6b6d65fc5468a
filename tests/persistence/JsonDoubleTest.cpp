#include "persistence/JsonDouble.h"
#include "persistence/Session.h"

#include <gtest/gtest.h>

#include <bit>
#include <limits>

namespace vantrix {
namespace {

// The texts of the original platform's encoder (Swift's Double.description without a trailing
// ".0"): shortest digits, exponential only above 2^53 or below 1e-4. Each one, written as a
// session's date, reads back to the identical double.
TEST(JsonDouble, WritesThePlatformsShortestFormAndReadsBackBitForBit) {
  const struct {
    double value;
    const char* text;
  } cases[] = {
      {753974400.0, "753974400"}, {753974400.123456789, "753974400.1234568"}, {0.5, "0.5"},
      {0.1 + 0.2, "0.30000000000000004"}, {-978307200.0, "-978307200"}, {0.0, "0"}, {-0.0, "-0.0"},
      {1e15, "1000000000000000"}, {9007199254740992.0, "9007199254740992"},
      {9007199254740994.0, "9.007199254740994e+15"}, {1e16, "1e+16"}, {1.5e300, "1.5e+300"},
      {1.8446744073709552e19, "1.8446744073709552e+19"}, {0.0001, "0.0001"}, {0.00012, "0.00012"},
      {0.00001, "1e-05"}, {-2.5e-7, "-2.5e-07"}, {5e-324, "5e-324"},
      {1.7976931348623157e308, "1.7976931348623157e+308"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(jsonTextOfDouble(c.value), c.text);
    Session s;
    s.modificationDate = c.value;
    const auto decoded = decodeSession(encodeSession(s).value());
    ASSERT_TRUE(decoded) << c.text;
    EXPECT_EQ(std::bit_cast<std::uint64_t>(decoded->modificationDate), std::bit_cast<std::uint64_t>(c.value)) << c.text;
  }
  EXPECT_FALSE(jsonTextOfDouble(std::numeric_limits<double>::infinity()));
  EXPECT_FALSE(jsonTextOfDouble(std::numeric_limits<double>::quiet_NaN()));
}

}  // namespace
}  // namespace vantrix
