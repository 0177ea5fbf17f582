#include "tools/gnss-gateway/output.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>
#include <vector>

#include "binding/codec.h"
#include "binding/timestamp.h"
#include "clients/Time.h"
#include "tools/gnss-gateway/fault_control.h"
#include "tools/gnss-gateway/fault_payload.h"
#include "tools/gnss-gateway/gnss_service.h"
#include "tools/gnss-gateway/say.h"
#include "tools/gnss-gateway/second_provider.h"

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

template <class Record>
Encoded_payload encoded(const std::vector<Record>& records, Malformation malformation) {
  Encoded_payload payload;
  binding::encode(records, payload.bytes);
  if (malformation != Malformation::none) payload.bytes = malformed(payload.bytes, malformation);
  return payload;
}

Encoded_instant encoded(const Notification& content, Malformation malformation) {
  Encoded_instant instant;
  if (!content.positions.empty()) instant.positions = encoded(content.positions, malformation);
  if (!content.quality.empty()) instant.quality = encoded(content.quality, malformation);
  if (content.satellites) instant.satellites = encoded(*content.satellites, malformation);
  return instant;
}

}  // namespace

/// Any thread may call.
class Output::Wake_up {
 public:
  Wake_up() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (descriptor_ < 0) {
      throw std::system_error(errno, std::generic_category(), "cannot create an event descriptor");
    }
  }
  ~Wake_up() { close(descriptor_); }
  Wake_up(const Wake_up&) = delete;
  Wake_up& operator=(const Wake_up&) = delete;

  [[nodiscard]] int descriptor() const { return descriptor_; }
  void wake() { eventfd_write(descriptor_, 1); }
  void reset() {
    eventfd_t count = 0;
    eventfd_read(descriptor_, &count);
  }

 private:
  const int descriptor_;
};

struct Output::Services {
  Encoded_gnss_skeleton gnss{ara::core::InstanceSpecifier("GNSS_ProvidedSomeipServiceInstance")};
  bool gnss_offered = false;
  std::unique_ptr<Second_provider> second;
  std::optional<double> second_north_m;
  std::unique_ptr<lumo::services::time::skeleton::TimeSkeleton> time;
  std::unique_ptr<Fault_control_skeleton> control;

  void offer_gnss() {
    // A field without a value cannot answer Get.
    const auto none = encoded(std::vector<lumo::services::gnss::datatypes::DT_positions_struct>(),
                              Malformation::none);
    gnss.positions.Update(none);
    gnss.positionsQuality.Update(none);
    gnss.posGnssSatInfos.Update(none);
    gnss.OfferService();
    gnss_offered = true;
  }
  void stop_offer_gnss() {
    gnss.StopOfferService();
    gnss_offered = false;
  }
};

Output::Output(Stop_signal& stop_signal, const Output_options& options)
    : stop_signal_(stop_signal),
      options_(options),
      time_base_(synchronized_time_base()),
      wake_up_(std::make_unique<Wake_up>()),
      services_(std::make_unique<Services>()) {
  for (const auto& fault : options_.faults)
    faults_.add(fault, {});
  advance_faults();
  if (options_.offer_fault_control) {
    services_->control = std::make_unique<Fault_control_skeleton>(
        faults_, [this] { return now(); }, [this] { wake_up_->wake(); });
    services_->control->OfferService();
  }
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
  services_->control.reset();
  services_->second.reset();
  if (services_->gnss_offered) services_->stop_offer_gnss();
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
    const auto fault_due = faults_.next_due();
    if (fault_due < next - start_) next = start_ + fault_due;
    const auto wake = stop_signal_.wait_until(next, input, wake_up_->descriptor());
    wake_up_->reset();
    advance_faults();
    const auto now = steady_clock::now();
    if (services_->time && now >= next_time_record_) publish_time();
    if (wake != Stop_signal::Wake::due || now >= due) return wake;
  }
  return Stop_signal::Wake::stopped;
}

void Output::drain() {
  while (faults_.holds_messages()) {
    const auto due = start_ + faults_.next_due();
    if (wait_until(due) == Stop_signal::Wake::stopped) return;
  }
}

void Output::publish(const std::function<Notification(Context)>& make) {
  const Context context{.message_counter = counter_,
                        .precise_local_time = time_base_.getCurrentTime(),
                        .update_rate_hz = {}};
  Message message{.content = make(context)};
  if (!message.content.positions.empty()) ++counter_;
  // Begins the faults that are due before the message passes them.
  advance_faults();
  faults_.pass(now(), std::move(message));
  advance_faults();
}

void Output::advance_faults() {
  const auto progress = faults_.advance(now());
  for (const auto& fault : progress.begun)
    say("fault " + fault.text + " begins");
  for (const auto& fault : progress.ended)
    say("fault " + fault.text + " has ended");
  follow(faults_.service());
  for (const auto& message : progress.due)
    send(message);
}

void Output::follow(const Service_fault& fault) {
  auto& services = *services_;
  if (fault.off && services.gnss_offered) services.stop_offer_gnss();
  if (!fault.off && !services.gnss_offered) services.offer_gnss();
  if (fault.second_north_m.has_value() != services.second_north_m.has_value()) {
    services.second.reset();
    if (fault.second_north_m) {
      try {
        services.second = make_second_provider(options_.node);
      } catch (const std::exception& error) {
        say(std::string("no second provider: ") + error.what());
      }
    }
  }
  services.second_north_m = fault.second_north_m;
}

void Output::send(const Message& message) {
  const auto instant = encoded(message.content, message.malformation);
  auto& gnss = services_->gnss;
  if (instant.positions) {
    gnss.positions.Update(*instant.positions);
    ++notifications_;
  }
  if (instant.quality) gnss.positionsQuality.Update(*instant.quality);
  if (instant.satellites) gnss.posGnssSatInfos.Update(*instant.satellites);
  if (!services_->second) return;
  auto elsewhere = message.content;
  faults::move(elsewhere, services_->second_north_m.value_or(0), 0);
  services_->second->update(encoded(elsewhere, message.malformation));
}

}  // namespace gateway
