/// The data of the page: the one interface between a source, be it the running application or a
/// recording, and the server.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "clients/gnss_records.h"
#include "clients/time_records.h"
#include "posService/positioning_records.h"
#include "tools/posctl/serve/stream.h"

namespace posctl::serve {

/// docs/page.md describes the data of each topic.
enum class Topic : std::uint8_t {
  hello,
  history,
  application,
  output,
  map,
  input,
  quality,
  satellites,
  time,
  services,
  status,
  change,
  fault,
  statistics,
  peers,
  offers,
  offer,
  monitors,
  monitor,
  component,
  source_faults,
  log,
  answer,
  lost,
};
inline constexpr std::size_t topic_count = static_cast<std::size_t>(Topic::lost) + 1;
[[nodiscard]] std::string_view name_of(Topic topic);

/// {"schema": 1, "topic": …, "at": …, "data": …}. `at` in milliseconds since 1970. Replaces
/// bytes that are not UTF-8.
[[nodiscard]] std::string frame(Topic topic, double at, const Json& data);

/// Turns data into frames, keeps their history, and passes them to the server. Any thread may call.
class Page_feed {
 public:
  using Text = std::shared_ptr<const std::string>;
  /// Takes each frame, in order, on the thread that made it, and returns at once. The numbers
  /// ascend.
  using Listener = std::function<void(std::uint64_t number, const Text& frame)>;

  /// `hello` is the data of the first frame of each client.
  explicit Page_feed(Json hello);

  // The source calls these.

  /// A notification; its topic follows from the type of its records. `received` in seconds since
  /// 1970.
  template <class Record>
  void notify(const std::vector<Record>& records, double received) {
    const std::lock_guard lock(mutex_);
    auto& entry = std::get<Entry<Record>>(streams_);
    entry.stream.add(records, received);
    send_due(entry);
  }
  /// Sends notifications that were held back. Call it some ten times a second.
  void flush();
  /// Replaces the data of the first frame and sends it to present clients.
  void greet(Json hello);
  /// A state: sends `data` now, and `whole`, or else `data`, to each client that connects later.
  void state(Topic topic, const Json& data, const Json* whole = nullptr);
  /// A state for clients that connect later; the present ones know it from events.
  void keep(Topic topic, const Json& data);
  /// An event: it is sent now, and remembered within a bound.
  void event(Topic topic, const Json& data);
  /// Figures of the statistics, in the order of statistics_curves.
  void curve(double at, std::span<const double> values);

  /// Whether the last notification of the output has a position.
  [[nodiscard]] bool has_position();

  // The server calls these.

  /// Whether a browser is connected. Without one, sources may do less.
  [[nodiscard]] bool has_clients() const { return clients_ != 0; }
  void set_clients(std::size_t count) { clients_ = count; }
  /// An empty one ends it: the previous one no longer runs afterwards.
  void listen(Listener listener);
  struct Snapshot {
    std::vector<Text> frames;
    std::uint64_t number = 0;  ///< frames up to this one are contained
  };
  /// For a client that comes: hello, history and states.
  [[nodiscard]] Snapshot all();
  /// For a client that has lost frames: hello and states.
  [[nodiscard]] Snapshot states();

 private:
  template <class Record>
  struct Entry {
    Topic topic;
    Stream<Record> stream;
  };
  struct Kept_event {
    double at;
    Text frame;
  };
  struct Events {
    std::deque<Kept_event> frames;
    std::size_t bytes = 0;
  };

  template <class Record>
  void send_due(Entry<Record>& entry) {
    if (auto due = entry.stream.take_due(std::chrono::steady_clock::now()))
      send(entry.topic, std::move(*due));
  }
  template <class Visit>
  void for_each_stream(Visit&& visit) {
    std::apply([&](auto&... entries) { (visit(entries), ...); }, streams_);
  }
  void send(Topic topic, const Json& data);
  [[nodiscard]] Snapshot begin_snapshot();
  void add_states(Snapshot& snapshot);
  [[nodiscard]] std::string history();

  std::atomic<std::size_t> clients_ = 0;
  std::mutex mutex_;  ///< guards the members below
  Json hello_;
  Listener listener_;
  std::uint64_t number_ = 0;
  std::array<Text, topic_count> states_;
  std::array<Events, topic_count> events_;
  std::tuple<Entry<lumo::services::positioning::datatypes::DT_positions_struct>,
             Entry<lumo::services::positioning::datatypes::DT_posMapInfo_struct>,
             Entry<lumo::services::gnss::datatypes::DT_positions_struct>,
             Entry<lumo::services::gnss::datatypes::DT_positionsQuality_struct>,
             Entry<lumo::services::gnss::datatypes::DT_posGnssSatInfos_struct>,
             Entry<lumo::services::time::datatypes::DT_times_struct>,
             Entry<lumo::services::time::datatypes::DT_timeSettings_struct>>
      streams_;
  Series statistics_;
};

inline constexpr std::array statistics_curves{
    Curve{"ratePerS", 2}, Curve{"stampToArrivalP50Ms", 4}, Curve{"stampToArrivalP99Ms", 4},
    Curve{"handlerToSentP50Ms", 4}, Curve{"handlerToSentP99Ms", 4}};

}  // namespace posctl::serve
