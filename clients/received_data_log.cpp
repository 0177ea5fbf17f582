#include "clients/received_data_log.h"

#include <array>
#include <charconv>
#include <string_view>
#include <type_traits>

namespace gnssClient {
namespace {

using binding::Value_type;
using lumo::services::gnss::datatypes::DT_positions_struct;
using lumo::services::gnss::datatypes::DT_positionsQuality_struct;

constexpr int significant_digits = 16;

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
  std::array<char, 32> digits;  // sign, digits, point and exponent: 24 at most
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value,
                                 std::chars_format::general, significant_digits)
                       .ptr;
  text.append(digits.data(), end);
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
