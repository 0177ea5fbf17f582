#include "tools/gnss-gateway/output.h"

#include <algorithm>
#include <vector>

#include "binding/codec.h"
#include "binding/timestamp.h"
#include "clients/GNSS.h"
#include "clients/Time.h"

namespace gateway {
namespace {

using namespace lumo::services::time::datatypes;
using std::chrono::steady_clock;
using tools::Stop_signal;

ara::time::SynchSlaveTimeBase synchronized_time_base() {
  using Proxy = ara::time::SlaveTimeBaseResourceProxy;
  return Proxy(Proxy::FindResource("synchronized")).asSynchSlave();
}

/// The settings of a vehicle in central Europe, in winter.
DT_timeSettings_struct default_time_settings() {
  DT_timeSettings_struct settings;
  settings.timeZoneOffset = 60;
  settings.daylightSavingTime = false;
  settings.timeFormat = 24U;
  settings.dateFormat = Date_format::day_first;
  settings.timeZoneName = std::string("Europe/Zurich");
  return settings;
}

/// TAI minus UTC since 2017.
constexpr std::int32_t leap_seconds = 37;

}  // namespace

struct Output::Services {
  lumo::services::gnss::skeleton::GNSSSkeleton gnss{
      ara::core::InstanceSpecifier("GNSS_ProvidedSomeipServiceInstance")};
  std::unique_ptr<lumo::services::time::skeleton::TimeSkeleton> time;
};

Output::Output(Stop_signal& stop_signal, const Output_options& options)
    : stop_signal_(stop_signal),
      options_(options),
      time_base_(synchronized_time_base()),
      services_(std::make_unique<Services>()) {
  // A field without a value cannot answer Get.
  services_->gnss.positions.Update({});
  services_->gnss.positionsQuality.Update({});
  services_->gnss.posGnssSatInfos.Update({});
  services_->gnss.OfferService();
  if (!options_.offer_time) return;

  services_->time = std::make_unique<lumo::services::time::skeleton::TimeSkeleton>(
      ara::core::InstanceSpecifier("Time_ProvidedSomeipServiceInstance"));
  const auto accept = [](const auto& wanted) {
    ara::core::Promise<std::decay_t<decltype(wanted)>> promise;
    promise.set_value(wanted);
    return promise.get_future();
  };
  services_->time->times.RegisterSetHandler(accept);
  services_->time->timeSettings.RegisterSetHandler(accept);
  services_->time->timeSettings.Update({default_time_settings()});
  publish_time();
  services_->time->OfferService();
}

Output::~Output() {
  services_->gnss.StopOfferService();
  if (services_->time) services_->time->StopOfferService();
}

void Output::publish_time() {
  const auto now = binding::Timestamp::of(std::chrono::system_clock::now().time_since_epoch());
  DT_times_struct utc;
  utc.type = Time_type::utc;
  utc.utcSeconds = now.seconds;
  utc.utcNanoseconds = now.nanoseconds;
  utc.leapSeconds = leap_seconds;
  utc.syncState = Sync_state::synchronized;
  DT_times_struct platform;
  platform.type = Time_type::platform;
  platform.syncState = Sync_state::synchronized;
  platform.pltOffset = options_.plt_offset_ns;
  services_->time->times.Update({utc, platform});
  next_time_record_ = steady_clock::now() + std::chrono::seconds(1);
}

bool Output::is_done() const {
  return (options_.max_notifications != 0 && notifications_ >= options_.max_notifications) ||
         (options_.max_duration.count() > 0 &&
          steady_clock::now() >= start_ + options_.max_duration);
}

Stop_signal::Wake Output::wait_until(steady_clock::time_point due, int input) {
  while (!is_done()) {
    auto next = due;
    if (options_.max_duration.count() > 0) next = std::min(next, start_ + options_.max_duration);
    if (services_->time) next = std::min(next, next_time_record_);
    const auto wake = stop_signal_.wait_until(next, input);
    const auto now = steady_clock::now();
    if (services_->time && now >= next_time_record_) publish_time();
    if (wake != Stop_signal::Wake::due || now >= due) return wake;
  }
  return Stop_signal::Wake::stopped;
}

void Output::publish(const std::function<Notification(Context)>& make) {
  const Context context{.message_counter = static_cast<std::uint32_t>(notifications_),
                        .precise_local_time = time_base_.getCurrentTime(),
                        .update_rate_hz = {}};
  const Notification notification = make(context);
  if (!notification.positions.empty()) {
    services_->gnss.positions.Update(notification.positions);
    ++notifications_;
  }
  services_->gnss.positionsQuality.Update(notification.quality);
  if (notification.satellites) services_->gnss.posGnssSatInfos.Update(*notification.satellites);
}

}  // namespace gateway
