#include "clients/received_data_log.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <sstream>

namespace gnssClient {
namespace {

TEST(Append_number, writes_what_a_stream_of_precision_16_writes) {
  using Limits = std::numeric_limits<double>;
  // At the edge of being rounded to a power of ten, and half-way between two texts; extremes.
  std::vector<double> values{0.0,
                             123456789012345678.0,
                             9999999999999998.0,
                             9.9999999999999999e-5,
                             9.99999999999999956,
                             0.99999999999999994,
                             4503599627370497.5,
                             4503599627370498.5,
                             Limits::max(),
                             Limits::denorm_min(),
                             Limits::infinity(),
                             Limits::quiet_NaN()};
  std::mt19937_64 random{42};
  for (int i = 0; i < 20'000; ++i) {
    values.push_back(std::bit_cast<double>(random()));
    const auto exponent = static_cast<int>(random() % 80) - 70;
    values.push_back(std::ldexp(static_cast<double>(random() >> 11U), exponent));
    values.push_back(static_cast<double>(random() % 100'000'000) / 1e6);
    values.push_back(std::bit_cast<float>(static_cast<std::uint32_t>(random())));
  }
  for (int exponent = -6; exponent < 18; ++exponent) {
    const double power = std::pow(10.0, exponent);
    values.insert(values.end(),
                  {power, std::nextafter(power, 0.0), std::nextafter(power, 2 * power)});
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
