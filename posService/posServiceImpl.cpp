#include "posService/posServiceImpl.h"

#include <array>
#include <bit>
#include <cstddef>
#include <string>

#include "binding/timestamp.h"
#include "diagnosisService/diagnosisServiceImpl.h"
#include "posService/posServiceSkelImpl.h"

namespace {

using lumo::services::positioning::datatypes::Position_source;
namespace map_status = lumo::services::positioning::datatypes::map_status;
namespace position_status = lumo::services::positioning::datatypes::position_status;

constexpr std::uint32_t counter_period = 100;

posServiceImpl::Map_info map_matched(const posServiceImpl::Position& position,
                                     Position_source source) {
  posServiceImpl::Map_info map_info;
  map_info.statusMapMatching = map_status::map_matching;
  map_info.statusMap = map_status::map;
  map_info.positionSource = source;
  map_info.preciseLocalTimeSeconds = position.preciseLocalTimeSeconds;
  map_info.preciseLocalTimeNanoseconds = position.preciseLocalTimeNanoseconds;
  return map_info;
}

diagnosisService::Map_matched_position as_map_matched(const posServiceImpl::Position& position,
                                                      const posServiceImpl::Map_info& map_info) {
  return {.latitude = position.LAT,
          .longitude = position.LON,
          .altitude = position.altitudeMeanSeaLevel,
          .heading = position.yawAngle,
          .speed = position.speed2D,
          .message_counter = position.messageCounter,
          .seconds = map_info.preciseLocalTimeSeconds,
          .nanoseconds = map_info.preciseLocalTimeNanoseconds,
          .status_map = map_info.statusMap,
          .status_map_matching = map_info.statusMapMatching,
          .position_source = map_info.positionSource.map(
              [](auto source) { return static_cast<std::uint32_t>(source); })};
}

std::uint32_t to_ms(std::uint64_t us) {
  return static_cast<std::uint32_t>(us / 1000);
}

/// Compares bit for bit: a NaN equals itself.
template <class Value>
bool same(const boost::optional<Value>& a, const boost::optional<Value>& b) {
  using Bits = std::array<std::byte, sizeof(Value)>;
  return a && b ? std::bit_cast<Bits>(*a) == std::bit_cast<Bits>(*b) : !a && !b;
}

}  // namespace

posServiceImpl::posServiceImpl(diagnosisService::diagnosisServiceImpl& diagnosis,
                               const timeutils& time)
    : diagnosis_{diagnosis},
      time_{time},
      logger_{ara::log::CreateLogger("PSRV", "posServiceImpl class own context")} {}

posServiceImpl::~posServiceImpl() = default;

void posServiceImpl::init() {
  logger_.LogInfo() << "enter posServiceImpl::init(), setting dummy values for all fields";
  skeleton_ = std::make_unique<posService::posServiceSkelImpl>();
  update_positions(boost::none, boost::none);
  update_map_info(0);
  skeleton_->OfferService();
}

void posServiceImpl::stop() {
  if (skeleton_ != nullptr) skeleton_->StopOfferService();
}

bool posServiceImpl::send_dr(Position position) {
  auto now_us = time_.current_time_us();
  // Unsigned, so that the 32-bit clock may wrap around.
  const std::uint32_t elapsed_ms = to_ms(now_us) - last_mm_sent_ms_;
  if (elapsed_ms > mm_interval_ms_) {
    const auto map_info = map_matched(position, Position_source::forwarded_position);
    diagnosis_.refresh_map_matched_position(as_map_matched(position, map_info));
    send_mm(map_info);
    logger_.LogInfo() << "DR position is being sent as MM, time from last MM sent pos: "
                      << elapsed_ms << "ms";
    now_us = time_.current_time_us();
    last_mm_sent_ms_ = to_ms(now_us);
  }

  const auto timestamp = binding::timestamp_of(position);
  if (!timestamp) return false;
  if (!always_send_ && is_repeated(position)) return false;
  position.age =
      static_cast<std::uint32_t>(timeutils::absolute_difference(timestamp->us(), now_us));
  publish(position);
  return true;
}

void posServiceImpl::update_positions(const boost::optional<double>& latitude,
                                      const boost::optional<double>& longitude) {
  Position position;
  const bool valid = latitude && longitude;
  if (!valid) {
    logger_.LogInfo() << "Invalid latitude, longitude values.";
  } else {
    if (auto line = logger_.LogInfo(); line.IsEnabled()) {
      line << "POS Service update positions with latitude= " << std::to_string(*latitude)
           << ", longitude = " << std::to_string(*longitude);
    }
    position.positionType = lumo::services::Position_type::gnss_dr;
    position.messageCounter = message_counter_;
    position.LAT = latitude;
    position.LON = longitude;
    position.altitudeMeanSeaLevel = 120.0F;
    position.yawAngle = 0.0F;
    position.accuracyHorizontal = 1.0F;
    position.accuracyVertical = 1.0F;
    position.speed2D = 0.0F;
    position.speedVertical = 0.0F;
    position.pitchAngle = 0.0F;
    position.rollAngle = 0.0F;
    position.accuracySpeed2D = 1.0F;
    position.accuracySpeedVertical = 1.0F;
    position.accuracyYawAngle = 1.0F;
    position.statusTime = position_status::time;
    position.statusMapMatching = position_status::map_matching;
    message_counter_ = (message_counter_ + 1) % counter_period;
  }
  binding::set_timestamp(position, binding::Timestamp::of_us(time_.current_time_us()));
  publish(position);
  if (valid) send_mm(map_matched(position, Position_source::position_update));
}

void posServiceImpl::update_map_info(std::uint32_t value) {
  logger_.LogInfo() << "POS Service update map info";
  Map_info map_info;
  map_info.mapInfo = value;
  send_mm(map_info);
}

void posServiceImpl::send_mm(const Map_info& map_info) {
  if (skeleton_ != nullptr) skeleton_->publish(map_info);
}

void posServiceImpl::publish(const Position& position) {
  if (skeleton_ == nullptr) return;
  skeleton_->publish(position);
  if (!always_send_) last_published_ = position;
}

bool posServiceImpl::is_repeated(const Position& position) const {
  auto last = last_published_;
  last.messageCounter = position.messageCounter;
  last.preciseLocalTimeSeconds = position.preciseLocalTimeSeconds;
  last.preciseLocalTimeNanoseconds = position.preciseLocalTimeNanoseconds;
  last.age = position.age;
  bool repeated = true;
  binding::for_each_member<Position>([&](const auto& member) {
    repeated = repeated && same(position.*member.pointer, last.*member.pointer);
  });
  return repeated;
}
