#include "clients/gnssClientImpl.h"

#include <string>
#include <utility>

#include "ara/log/logger.h"
#include "binding/timestamp.h"
#include "clients/received_data_log.h"
#include "clients/subscribe.h"

namespace gnssClient {
namespace {

/// Logs one received record as one string. The text is built only if the level is on, in a buffer
/// of the calling thread.
template <class... Record>
void log_received(const Record&... record) {
  auto line = ara::log::LogInfo();
  if (!line.IsEnabled()) return;
  thread_local std::string text;
  text.clear();
  append_line(text, record...);
  line << text;
}

ara::log::LogStream& operator<<(ara::log::LogStream& line,
                                const boost::optional<std::uint32_t>& value) {
  return value ? line << *value : line << "missing";
}

}  // namespace

gnssClientImpl::gnssClientImpl(const timeutils& time)
    : time_{time},
      logger_{ara::log::CreateLogger("GNSS", "gnssClientImpl class own context")},
      client_{logger_} {}

void gnssClientImpl::set_data_faults_callback(
    const std::function<void(Field, const clients::Data_faults&)>& callback) {
  const auto about = [&](Field field) {
    return [callback, field](const auto& faults) { callback(field, faults); };
  };
  positions_faults_.set_callback(about(Field::positions));
  quality_faults_.set_callback(about(Field::positionsQuality));
  satellites_faults_.set_callback(about(Field::posGnssSatInfos));
}

void gnssClientImpl::init() {
  logger_.LogInfo() << "enter gnssClientImpl::init()";
  client_.init([this](auto& proxy) { set_up(proxy); });
}

void gnssClientImpl::set_up(lumo::services::gnss::proxy::GNSSProxy& proxy) {
  clients::subscribe(proxy.positions, [this](const auto& samples) { receive(samples); });
  clients::subscribe(proxy.positionsQuality, [this](const auto& records) { receive(records); });
  clients::subscribe(proxy.posGnssSatInfos,
                     [this](const auto& satellites) { receive(satellites); });
}

void gnssClientImpl::receive(const std::vector<Position>& samples) {
  const auto now = time_.now();
  const auto now_us = timeutils::to_us(now);
  if (samples.empty()) return;
  if (log_received_) {
    for (const auto& sample : samples)
      log_received(sample, now_us);
  }
  positions_faults_.look(samples);
  const auto [chosen, other] = select(samples, wanted_);
  if (ages_ != nullptr) {
    const Position& stamped = chosen != nullptr ? *chosen : samples.back();
    ages_->received(binding::timestamp_of(stamped), mw::com::Handled_arrival::current(), now);
  }
  if (chosen == nullptr || !on_position_) return;
  if (other == nullptr && !replace_timestamps_) {
    on_position_(*chosen);
    return;
  }
  Position position = *chosen;
  if (other != nullptr) complete(position, *other);
  if (replace_timestamps_) replace_timestamp(position, now_us);
  on_position_(position);
}

void gnssClientImpl::receive(const std::vector<Quality>& records) {
  quality_faults_.look(records);
  for (const auto& record : records) {
    if (log_received_) log_received(record);
    if (on_quality_) on_quality_(record);
  }
}

void gnssClientImpl::receive(const std::vector<Satellite>& satellites) {
  satellites_faults_.look(satellites);
  if (on_satellites_) on_satellites_(satellites);
}

void gnssClientImpl::replace_timestamp(Position& position, std::uint64_t now_us) const {
  const auto seconds = position.preciseLocalTimeSeconds;
  const auto nanoseconds = position.preciseLocalTimeNanoseconds;
  binding::set_timestamp(position, binding::Timestamp::of_us(now_us));
  ara::log::LogInfo() << "REPLACING" << binding::name_of(wanted_)
                      << "POSITION TIMESTAMP, original seconds " << seconds << ", nanoseconds "
                      << nanoseconds << "new timestamp for this sample: seconds "
                      << *position.preciseLocalTimeSeconds << ", nanoseconds "
                      << *position.preciseLocalTimeNanoseconds;
}

}  // namespace gnssClient
