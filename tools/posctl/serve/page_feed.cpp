#include "tools/posctl/serve/page_feed.h"

#include <algorithm>
#include <utility>

namespace posctl::serve {
namespace {

constexpr std::array<std::string_view, topic_count> names{
    "hello",   "history",    "application",  "output",   "map",    "input",
    "quality", "satellites", "time",         "services", "status", "change",
    "fault",   "statistics", "peers",        "offers",   "offer",  "monitors",
    "monitor", "component",  "sourceFaults", "log",      "answer", "lost"};

constexpr std::array position_curves{Curve{"LAT", 9},
                                     Curve{"LON", 9},
                                     Curve{"altitudeMeanSeaLevel", 3},
                                     Curve{"speed2D", 3},
                                     Curve{"yawAngle", 2},
                                     Curve{"courseOverGround", 2},
                                     Curve{"accuracyHorizontal", 3},
                                     Curve{"accuracyVertical", 3},
                                     Curve{"accuracyYawAngle", 2},
                                     Curve{age_curve, 3}};
constexpr std::array quality_curves{Curve{"satsInView", 0},  Curve{"satsInUse", 0},
                                    Curve{"satsTracked", 0}, Curve{"hDOP", 2},
                                    Curve{"pDOP", 2},        Curve{"statusFixType", 0}};

using std::chrono::milliseconds;
/// Between two frames of one topic: the eye does not follow more.
constexpr milliseconds position_interval{50};
constexpr milliseconds quality_interval{200};
constexpr milliseconds sky_interval{500};

/// Bytes of remembered events.
constexpr std::size_t most_bytes(Topic topic) {
  constexpr std::size_t kibibyte = 1024;
  return topic == Topic::log ? 512 * kibibyte : 64 * kibibyte;
}

std::size_t place(Topic topic) {
  return static_cast<std::size_t>(topic);
}

/// `data` is JSON already.
std::string frame_of(Topic topic, double at, std::string_view data) {
  std::string text = R"({"schema":1,"topic":")";
  text += name_of(topic);
  text += R"(","at":)";
  text += Json(at).dump();
  text += R"(,"data":)";
  text += data;
  text += '}';
  return text;
}

double now_ms() {
  return seconds_since_1970() * 1000;
}

}  // namespace

std::string_view name_of(Topic topic) {
  return names.at(place(topic));
}

std::string frame(Topic topic, double at, const Json& data) {
  return frame_of(topic, at, data.dump(-1, ' ', false, Json::error_handler_t::replace));
}

Page_feed::Page_feed(Json hello)
    : hello_(std::move(hello)),
      streams_{{Topic::output, {"positions", position_interval, position_curves}},
               {Topic::map, {"posMapInfo", quality_interval}},
               {Topic::input, {"positions", position_interval, position_curves}},
               {Topic::quality, {"positionsQuality", quality_interval, quality_curves}},
               {Topic::satellites, {"posGnssSatInfos", sky_interval}},
               {Topic::time, {"times", sky_interval}},
               {Topic::time, {"timeSettings", sky_interval}}},
      statistics_(statistics_curves) {}

void Page_feed::flush() {
  const std::lock_guard lock(mutex_);
  for_each_stream([this](auto& entry) { send_due(entry); });
}

void Page_feed::send(Topic topic, const Json& data) {
  if (!listener_ || clients_ == 0) return;
  listener_(++number_, std::make_shared<const std::string>(frame(topic, now_ms(), data)));
}

void Page_feed::greet(Json hello) {
  const std::lock_guard lock(mutex_);
  hello_ = std::move(hello);
  send(Topic::hello, hello_);
}

void Page_feed::state(Topic topic, const Json& data, const Json* whole) {
  const std::lock_guard lock(mutex_);
  const double at = now_ms();
  auto text = std::make_shared<const std::string>(frame(topic, at, data));
  states_.at(place(topic)) =
      whole == nullptr ? text : std::make_shared<const std::string>(frame(topic, at, *whole));
  if (listener_ && clients_ != 0) listener_(++number_, text);
}

void Page_feed::keep(Topic topic, const Json& data) {
  auto text = std::make_shared<const std::string>(frame(topic, now_ms(), data));
  const std::lock_guard lock(mutex_);
  states_.at(place(topic)) = std::move(text);
}

void Page_feed::event(Topic topic, const Json& data) {
  const std::lock_guard lock(mutex_);
  const double at = now_ms();
  auto text = std::make_shared<const std::string>(frame(topic, at, data));
  Events& events = events_.at(place(topic));
  events.bytes += text->size();
  events.frames.push_back({at, text});
  while (events.bytes > most_bytes(topic)) {
    events.bytes -= events.frames.front().frame->size();
    events.frames.pop_front();
  }
  if (listener_ && clients_ != 0) listener_(++number_, text);
}

void Page_feed::curve(double at, std::span<const double> values) {
  const std::lock_guard lock(mutex_);
  statistics_.add(at, values);
}

bool Page_feed::has_position() {
  const std::lock_guard lock(mutex_);
  const auto last = std::get<0>(streams_).stream.last();
  return last && !last->contains("initial");
}

void Page_feed::listen(Listener listener) {
  const std::lock_guard lock(mutex_);
  listener_ = std::move(listener);
}

Page_feed::Snapshot Page_feed::all() {
  const std::lock_guard lock(mutex_);
  Snapshot snapshot = begin_snapshot();
  snapshot.frames.push_back(
      std::make_shared<const std::string>(frame_of(Topic::history, now_ms(), history())));
  add_states(snapshot);
  return snapshot;
}

Page_feed::Snapshot Page_feed::begin_snapshot() {
  return {.frames = {std::make_shared<const std::string>(frame(Topic::hello, now_ms(), hello_))}};
}

Page_feed::Snapshot Page_feed::states() {
  const std::lock_guard lock(mutex_);
  Snapshot snapshot = begin_snapshot();
  add_states(snapshot);
  return snapshot;
}

void Page_feed::add_states(Snapshot& snapshot) {
  snapshot.number = number_;
  for (const Text& text : states_) {
    if (text) snapshot.frames.push_back(text);
  }
  for_each_stream([&](auto& entry) {
    if (auto last = entry.stream.last()) {
      snapshot.frames.push_back(std::make_shared<const std::string>(
          frame(entry.topic, (*last)["received"].template get<double>() * 1000, *last)));
    }
  });
}

std::string Page_feed::history() {
  std::string text = R"({"series":[)";
  const auto add = [&](Topic topic, std::optional<std::uint32_t> type, const Series& series) {
    if (text.back() == '}') text += ',';
    text += R"({"topic":")";
    text += name_of(topic);
    text += R"(","positionType":)";
    text += type ? std::to_string(*type) : "null";
    text += R"(,"tiers":)";
    series.write_tiers(text);
    text += '}';
  };
  for_each_stream([&](auto& entry) {
    for (const auto& [type, series] : entry.stream.series())
      add(entry.topic, type, series);
  });
  add(Topic::statistics, std::nullopt, statistics_);
  std::vector<const Kept_event*> events;
  for (const Events& of_topic : events_)
    for (const auto& one : of_topic.frames)
      events.push_back(&one);
  std::ranges::stable_sort(events, {}, [](const auto* one) { return one->at; });
  text += R"(],"frames":[)";
  for (const auto* one : events) {
    if (one != events.front()) text += ',';
    text += *one->frame;
  }
  return text + "]}";
}

}  // namespace posctl::serve
