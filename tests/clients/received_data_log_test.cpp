#include "clients/received_data_log.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <sstream>

namespace gnssClient {
namespace {

TEST(Append_number, writes_what_a_stream_of_precision_16_writes) {
  std::vector<double> values{0.0,
                             1.0,
                             0.1,
                             1e-4,
                             1e-5,
                             123456789012345678.0,
                             1e15,
                             1e16,
                             1e17,
                             9999999999999998.0,
                             9.9999999999999999e-5,
                             9.99999999999999956,
                             0.99999999999999994,
                             9007199254740991.0,
                             4503599627370497.5,
                             4503599627370498.5,
                             48.137154,
                             1.0 / 3,
                             std::numeric_limits<double>::max(),
                             std::numeric_limits<double>::min(),
                             std::numeric_limits<double>::denorm_min(),
                             std::numeric_limits<double>::infinity(),
                             std::numeric_limits<double>::quiet_NaN(),
                             std::numeric_limits<double>::signaling_NaN(),
                             static_cast<double>(std::numeric_limits<float>::denorm_min())};
  std::mt19937_64 random{42};
  for (int i = 0; i < 20'000; ++i)
    values.push_back(std::bit_cast<double>(random()));
  for (int i = 0; i < 20'000; ++i) {
    const auto exponent = static_cast<int>(random() % 80) - 70;
    values.push_back(std::ldexp(static_cast<double>(random() >> 11U), exponent));
    values.push_back(static_cast<double>(random() % 100'000'000) / 1e6);
  }
  for (int exponent = -6; exponent < 18; ++exponent) {
    const double power = std::pow(10.0, exponent);
    values.insert(values.end(),
                  {power, std::nextafter(power, 0.0), std::nextafter(power, 2 * power)});
  }
  for (int i = 0; i < 20'000; ++i) {
    values.push_back(
        static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(random()))));
  }
  std::ostringstream stream;
  stream.precision(16);
  for (const double magnitude : values) {
    for (const double value : {magnitude, -magnitude}) {
      stream.str({});
      stream << value;
      std::string text;
      append_number(text, value);
      ASSERT_EQ(text, stream.str());
    }
  }
}

}  // namespace
}  // namespace gnssClient
