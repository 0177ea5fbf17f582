#include "clients/received_data_log.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <limits>
#include <string_view>
#include <type_traits>

namespace gnssClient {
namespace {

using binding::Value_type;
using lumo::services::gnss::datatypes::DT_positions_struct;
using lumo::services::gnss::datatypes::DT_positionsQuality_struct;

constexpr int significant_digits = 16;

constexpr auto powers_of_ten = [] {
  std::array<std::uint64_t, 20> powers{1};
  for (std::size_t i = 1; i < powers.size(); ++i)
    powers[i] = powers[i - 1] * 10;
  return powers;
}();

/// Writes a number between 0.0001 and 2^53, which nearly all measured values are, as
/// append_number() does, and returns the end; null for any other. The standard library reckons with
/// numbers of any size and takes more than twice as long.
char* write_common_number(char* out, double value) {
  __extension__ using Wide = unsigned __int128;
  constexpr std::uint64_t least_digits = powers_of_ten[significant_digits - 1];
  constexpr int mantissa_bits = std::numeric_limits<double>::digits - 1;
  constexpr int exponent_bias = std::numeric_limits<double>::max_exponent - 1;

  const double magnitude = std::abs(value);
  if (!(magnitude >= 1e-4 && magnitude < 0x1p53)) return nullptr;
  const auto bits = std::bit_cast<std::uint64_t>(magnitude);
  const auto mantissa =
      (bits & ((std::uint64_t{1} << mantissa_bits) - 1)) | (std::uint64_t{1} << mantissa_bits);
  const int exponent = static_cast<int>(bits >> mantissa_bits) - exponent_bias;
  const auto shift = static_cast<unsigned>(mantissa_bits - exponent);  // 0 to 66

  // The decimal exponent of the next power of two (1233 / 4096 is the logarithm of 2), one too many
  // at most.
  int decimal_exponent = ((exponent + 1) * 1233) >> 12;
  const auto scale = [&] {
    return Wide{mantissa} *
           powers_of_ten[static_cast<std::size_t>(significant_digits - 1 - decimal_exponent)];
  };
  Wide scaled = scale();
  if (scaled >> shift < least_digits) {
    --decimal_exponent;
    scaled = scale();
  }
  auto digits = static_cast<std::uint64_t>(scaled >> shift);
  // To the nearest, from the middle to the even one.
  if (shift != 0) {
    const Wide half = Wide{1} << (shift - 1);
    const Wide rest = scaled & ((half << 1U) - 1);
    if (rest > half || (rest == half && digits % 2 != 0)) ++digits;
    if (digits == least_digits * 10) {
      digits = least_digits;
      ++decimal_exponent;
    }
  }

  if (value < 0) *out++ = '-';
  std::array<char, significant_digits> text;
  std::to_chars(text.data(), text.data() + text.size(), digits);
  const char* end = text.data() + text.size();
  while (end[-1] == '0')
    --end;
  const char* rest = text.data();
  if (decimal_exponent < 0) {
    *out++ = '0';
    *out++ = '.';
    out = std::fill_n(out, -1 - decimal_exponent, '0');
  } else {
    rest += decimal_exponent + 1;
    out = std::copy_n(text.data(), decimal_exponent + 1, out);
    if (rest < end) *out++ = '.';
  }
  return rest < end ? std::copy(rest, end, out) : out;
}

template <class Value>
void append_value(std::string& text, Value value) {
  if constexpr (std::is_floating_point_v<Value>) {
    append_number(text, static_cast<double>(value));
  } else {
    std::array<char, 24> digits;
    const auto end =
        std::to_chars(digits.data(), digits.data() + digits.size(), +value).ptr;  // + for bool
    text.append(digits.data(), end);
  }
}

template <class Value>
void append_member(std::string& text,
                   std::string_view name,
                   const boost::optional<Value>& value,
                   std::string_view name_when_absent) {
  if (value) {
    text.append(name).push_back('=');
    append_value(text, *value);
  } else {
    text.append(name_when_absent).append(" value is not set");
  }
}
template <class Value>
void append_member(std::string& text, std::string_view name, const boost::optional<Value>& value) {
  append_member(text, name, value, name);
}

void append_quality(std::string& text, const boost::optional<Value_type>& quality) {
  text.append(" (valueType is ").append(binding::to_text(quality)).push_back(')');
}

template <class Value>
void append_quantity(std::string& text,
                     std::string_view name,
                     const boost::optional<Value>& value,
                     const boost::optional<Value_type>& quality) {
  append_member(text, name, value);
  append_quality(text, quality);
}

void append_arrival_age(std::string& text, std::uint64_t sample_us, std::uint64_t arrival_us) {
  text += ", sample is ";
  if (static_cast<std::int64_t>(arrival_us - sample_us) < 0) {
    append_value(text, sample_us - arrival_us);
    text += " us into the future compared to PLT";
  } else {
    append_value(text, arrival_us - sample_us);
    text += " us old at arrival compared to PLT";
  }
  text += ", sampleTime = ";
  append_value(text, sample_us);
  text += " arrivalTime = ";
  append_value(text, arrival_us);
}

}  // namespace

void append_number(std::string& text, double value) {
  // Sign, 17 digits at most, and either a point with up to four zeros before them or an exponent.
  std::array<char, 32> number;
  const auto end = write_common_number(number.data(), value);
  text.append(number.data(),
              end != nullptr ? end
                             : std::to_chars(number.data(), number.data() + number.size(), value,
                                             std::chars_format::general, significant_digits)
                                   .ptr);
}

// The labels and their order are an interface of their own: log evaluation tools look for them, the
// missing comma before the yaw angle included.

void append_line(std::string& text, const DT_positions_struct& position, std::uint64_t arrival_us) {
  const auto& p = position;
  text += "###### position from gnss:";
  append_member(text, " position type", p.positionType);
  append_member(text, ", messageCounter", p.messageCounter);
  append_quantity(text, ", LAT", p.LAT, p.LAT_valueType);
  append_quantity(text, ", LON", p.LON, p.LON_valueType);
  append_quantity(text, ", altitudeWGS84", p.altitudeWGS84, p.altitudeWGS84_valueType);
  append_quantity(text, ", altitudeMeanSeaLevel", p.altitudeMeanSeaLevel,
                  p.altitudeMeanSeaLevel_valueType);
  append_member(text, " yawAngle", p.yawAngle, ", yawAngle");
  append_quality(text, p.yawAngle_valueType);
  append_quantity(text, ", speed2D", p.speed2D, p.speed2D_valueType);
  append_quantity(text, ", preciseLocalTimeSeconds", p.preciseLocalTimeSeconds,
                  p.preciseLocalTimeSeconds_valueType);
  append_quantity(text, ", preciseLocalTimeNanoseconds", p.preciseLocalTimeNanoseconds,
                  p.preciseLocalTimeNanoseconds_valueType);
  if (p.preciseLocalTimeSeconds && p.preciseLocalTimeNanoseconds) {
    append_arrival_age(
        text,
        *p.preciseLocalTimeNanoseconds / 1000 + std::uint64_t{*p.preciseLocalTimeSeconds} * 1000000,
        arrival_us);
  }
}

void append_line(std::string& text, const DT_positionsQuality_struct& quality) {
  const auto& q = quality;
  text += "###### positions quality from gnss:";
  append_member(text, " positionType", q.positionType);
  append_quantity(text, ", gDOP", q.gDOP, q.gDOP_valueType);
  append_quantity(text, ", hDOP", q.hDOP, q.hDOP_valueType);
  append_quantity(text, ", pDOP", q.pDOP, q.pDOP_valueType);
  append_quantity(text, ", vDOP", q.vDOP, q.vDOP_valueType);
  append_member(text, ", isActivatedAssistedGNSS", q.isActivatedAssistedGNSS);
  append_member(text, ", statusReceiverMode", q.statusReceiverMode);
  append_member(text, ", statusFixType", q.statusFixType);
  append_quantity(text, ", updateRateGNSS", q.updateRateGNSS, q.updateRateGNSS_valueType);
  append_quantity(text, ", satsInView", q.satsInView, q.satsInView_valueType);
  append_quantity(text, ", satsInUse", q.satsInUse, q.satsInUse_valueType);
  append_quantity(text, ", satsTracked", q.satsTracked, q.satsTracked_valueType);
  append_member(text, ", statusGNSSAntenna", q.statusGNSSAntenna);
}

}  // namespace gnssClient
