#include "tools/posctl/serve/live_source.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <thread>
#include <utility>

#include "binding/statistics.h"
#include "clients/GNSS.h"
#include "clients/Time.h"
#include "platform/linux/com/manifest.h"
#include "posService/Positioning.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/monitor_reports.h"
#include "tools/posctl/notification_json.h"
#include "tools/posctl/offer_table.h"
#include "tools/posctl/serve/fault_watch.h"
#include "tools/posctl/serve/source_parts.h"
#include "tools/posctl/serve/status_watch.h"
#include "tools/posctl/statistics_page.h"
#include "tools/posctl/verdict.h"

namespace posctl::serve {
namespace {

using binding::Statistics;
using binding::Statistics_proxy;
using lumo::services::gnss::proxy::GNSSProxy;
using lumo::services::positioning::proxy::PositioningProxy;
using lumo::services::time::proxy::TimeProxy;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Between two looks at the status, while a browser shows it: a change is on the page within 200
/// ms.
constexpr milliseconds tick{100};
constexpr milliseconds log_period{500};
constexpr milliseconds second{1000};
/// Of 200 lines each. More lines than that in half a second are nothing to read.
constexpr int most_answers = 2;
/// A peer decides how many it offers.
constexpr std::size_t most_offers = 1024;
/// Notifications of a field that wait for their handler.
constexpr std::size_t most_samples = 64;

Json changed(const Json& counters, const Json& before) {
  Json json = Json::object();
  for (const auto& [name, value] : counters.items()) {
    if (before.value(name, Json()) != value) json[name] = value;
  }
  return json;
}

/// Subscribes to a field that has just been found.
template <class Field>
void follow(Field& field, Page_feed& feed) {
  field.SetReceiveHandler([&field, &feed] {
    field.GetNewSamples([&](const auto& sample) { feed.notify(*sample, seconds_since_1970()); });
  });
  field.Subscribe(most_samples);
}

}  // namespace

class Live_source::Implementation {
 public:
  Implementation(Page_feed& feed, const Live_options& options)
      : feed_(feed),
        deployment_(tq::com::load_deployment(options.node)),
        offers_(deployment_,
                most_offers,
                [this](const char* event, const auto& key, const auto& offer) {
                  tell_offer(event, key, offer);
                }),
        status_(feed) {
    try {
      listener_.emplace(deployment_, options.node);
    } catch (const std::exception& error) {
      feed_.keep(Topic::offers, {{"schema", 1}, {"offers", Json::array()}, {"text", error.what()}});
    }
    tell_application(false, "the application has not been found yet");
    tell_services();
    try {
      monitors_.emplace([this](const auto& monitor, auto action) {
        feed_.event(Topic::monitor, report_json(monitor, action));
      });
    } catch (const std::runtime_error& error) {  // the manifest has none
      feed_.keep(Topic::monitors, {{"monitors", Json::array()}, {"text", error.what()}});
    }
    if (!options.faults_absence.empty()) faults_.emplace(feed_, options.faults_absence);
    thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
  }
  ~Implementation() {
    thread_.request_stop();
    thread_.join();
  }
  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;

  [[nodiscard]] bool has_application() const { return present_; }

 private:
  void run(const std::stop_token& stop) {
    std::mutex mutex;
    std::condition_variable_any wake;
    std::unique_lock lock(mutex);
    for (auto due = Clock::now(); !stop.stop_requested();
         due = std::max(due + tick, Clock::now())) {
      wake.wait_until(lock, stop, due, [] { return false; });
      look(Clock::now());
    }
  }

  void look(Clock::time_point now) {
    follow_services();
    feed_.flush();
    if (listener_) {
      listener_->read([this](const auto& key, const auto& offer) { offers_.take(key, offer); });
      offers_.expire(someip::Time::clock::now());
      // Once for all changes: a peer decides how many one datagram brings.
      if (std::exchange(offers_changed_, false)) feed_.keep(Topic::offers, offers_.json());
    }
    if (faults_) faults_->look(now);
    // Without an application nothing else comes, and a page could not tell that the server is
    // alive.
    if (!present_ && services_period_.is_due(now)) tell_services();
    if (statistics_.proxy() == nullptr) return;
    try {
      const bool watched = feed_.has_clients();
      // The status has the figures of the statistics in its verdict, so they come first.
      if (statistics_period_.is_due(now)) look_at_statistics();
      if (watched || status_period_.is_due(now)) status_.look(*statistics_.proxy(), figures_, now);
      if (has_log_ && log_period_.is_due(now)) look_at_log();
      if (!present_) tell_application(true, "");
    } catch (const std::exception& error) {
      // The application has ended or does not answer: lose() reports both, once.
      lose(error.what());
    }
  }

  void follow_services() {
    if (positioning_.update()) {
      if (auto* const proxy = positioning_.proxy()) {
        follow(proxy->positions, feed_);
        follow(proxy->posMapInfo, feed_);
      }
      tell_services();
    }
    if (gnss_.update()) {
      if (auto* const proxy = gnss_.proxy()) {
        follow(proxy->positions, feed_);
        follow(proxy->positionsQuality, feed_);
        follow(proxy->posGnssSatInfos, feed_);
      }
      tell_services();
    }
    if (time_.update()) {
      if (auto* const proxy = time_.proxy()) {
        follow(proxy->times, feed_);
        follow(proxy->timeSettings, feed_);
      }
      tell_services();
    }
    if (statistics_.update()) {
      tell_services();
      if (statistics_.proxy() == nullptr) lose("its statistics are no longer offered");
    }
  }
  void tell_services() {
    feed_.state(Topic::services, {{"Positioning", positioning_.row()},
                                  {"GNSS", gnss_.row()},
                                  {"Time", time_.row()},
                                  {"Statistics", statistics_.row()}});
  }

  void lose(const std::string& reason) {
    if (!present_) return;
    tell_application(false, reason);
    status_.forget();
    next_line_ = 0;
    has_log_ = true;
  }
  void tell_application(bool present, const std::string& text) {
    present_ = present;
    if (present) {
      serve::tell_application(feed_, started_);
    } else {
      tell_no_application(feed_, text);
    }
  }

  void look_at_statistics() {
    Json whole = read_statistics(*statistics_.proxy(), deadline_in(answer_time));
    const double now = seconds_since_1970() * 1000;
    const double uptime = whole["process"]["uptimeMs"].get<double>();
    // Uptimes, because a step of the system clock is no restart.
    const bool again =
        figures_.contains("process") && uptime < figures_["process"]["uptimeMs"].get<double>();
    if (again && present_) lose("the application has been started again");
    started_ = now - uptime;
    Json shown = whole;
    shown["counters"] = changed(whole["counters"], figures_.value("counters", Json::object()));
    feed_.state(Topic::statistics, shown, &whole);
    const auto figure = [&](const char* age, const char* member) {
      const Json& figures = whole["ages"][age]["last10S"];
      return figures["count"] == 0 ? no_value : figures[member].get<double>() / 1e6;
    };
    const std::array values{position_rate(whole["ages"]), figure("stampToArrival", "p50Ns"),
                            figure("stampToArrival", "p99Ns"), figure("handlerToSent", "p50Ns"),
                            figure("handlerToSent", "p99Ns")};
    static_assert(values.size() == statistics_curves.size());
    feed_.curve(now, values);
    figures_ = std::move(whole);
  }

  void look_at_log() {
    try {
      for (int answers = 0; answers < most_answers; ++answers) {
        const auto answer = result_of(statistics_.proxy()->LogLines(next_line_),
                                      Statistics::LogLines.name, deadline_in(answer_time));
        next_line_ = answer.next;
        if (answer.lines.empty()) return;
        tell_lines(answer);
      }
    } catch (const ara::com::ServiceError&) {
      has_log_ = false;  // an older application
    }
  }
  void tell_lines(const binding::Log_lines& answer) {
    Json json{{"lines", Json::array()}, {"lost", answer.lost}};
    for (const auto& line : answer.lines) {
      json["lines"].push_back({{"at", static_cast<double>(line.timeUs) / 1000},
                               {"level", line.level},
                               {"context", line.context},
                               {"text", line.text}});
    }
    feed_.event(Topic::log, json);
  }

  void tell_offer(const char* event, const Offer_table::Key& key, const Seen_offer& offer) {
    offers_changed_ = true;
    Json json = offers_.json_of(key, offer);
    json["event"] = event;
    json["schema"] = 1;
    feed_.event(Topic::offer, json);
  }

  Page_feed& feed_;
  // The members below are of the constructor, then of the thread.
  const someip::Deployment deployment_;
  Offer_table offers_;
  std::optional<Group_listener> listener_;
  Service<PositioningProxy> positioning_;
  Service<GNSSProxy> gnss_;
  Service<TimeProxy> time_;
  Service<Statistics_proxy> statistics_;
  std::optional<Monitor_reports> monitors_;
  std::optional<Fault_watch> faults_;
  Status_watch status_;
  Period services_period_{second}, statistics_period_{second}, status_period_{second},
      log_period_{log_period};
  std::atomic<bool> present_ = false;
  double started_ = 0;  ///< milliseconds since 1970; 0: not known
  Json figures_ = Json::object();
  std::uint64_t next_line_ = 0;
  bool has_log_ = true;
  bool offers_changed_ = false;  ///< since the feed has kept them
  std::jthread thread_;
};

Live_source::Live_source(Page_feed& feed, const Live_options& options)
    : implementation_(std::make_unique<Implementation>(feed, options)) {}

Live_source::~Live_source() = default;

bool Live_source::has_application() const {
  return implementation_->has_application();
}

}  // namespace posctl::serve
