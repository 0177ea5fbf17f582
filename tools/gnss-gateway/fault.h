/// Faults that the gateway makes on request. Each is a transformation of the stream of
/// notifications with a state of its own; Fault_plan chains and times them. One table describes
/// them: the command line, the control service, its clients and docs/faults.md follow it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/gnss-gateway/notification.h"

namespace gateway {

/// A point in time, counted from the start of the gateway.
using Fault_time = std::chrono::nanoseconds;

/// Change of the payloads after their encoding.
enum class Malformation : std::uint8_t { none, truncated, length, wire_type, noise };

/// The notifications of one instant on their way to the subscribers.
struct Message {
  Notification content;
  Malformation malformation = Malformation::none;
};

/// Effect of a fault on the service itself.
struct Service_fault {
  bool off = false;                      ///< the service is not offered
  std::optional<double> second_north_m;  ///< metres from the first provider to a second one
};

class Fault {
 public:
  using Sink = std::function<void(Message)>;

  Fault() = default;
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;
  virtual ~Fault() = default;

  /// Passes the message on: changed, several times, later in release(), or never.
  virtual void pass(Fault_time now, Message message, const Sink& next) = 0;
  /// Passes on every held message that is due.
  virtual void release(Fault_time /*now*/, const Sink& /*next*/) {}
  /// The time of the next due message; the greatest time while none is held.
  [[nodiscard]] virtual Fault_time next_release() const { return Fault_time::max(); }
  [[nodiscard]] virtual Service_fault service() const { return {}; }
};

/// The value of a fault, of which a kind uses one member.
struct Fault_value {
  double number = 0;
  std::size_t choice = 0;  ///< place in the list of choices
};

struct Fault_kind {
  std::string_view name;
  std::string_view meaning;
  /// Unit of a number; empty for a kind without a number.
  std::string_view unit;
  double low = 0;
  double high = 0;
  /// Alternatives of a kind whose value is a word.
  std::span<const std::string_view> choices;
  /// The value without one in the request; empty for a kind without a value.
  std::string_view usual;
  /// Makes the fault at its start.
  std::unique_ptr<Fault> (*make)(const Fault_value& value, Fault_time start);

  [[nodiscard]] bool has_value() const { return !usual.empty(); }
};

[[nodiscard]] std::span<const Fault_kind> fault_kinds();

/// "a number of metres from 0.1 to 100" or "one of GNSS, GNSS-DR".
[[nodiscard]] std::string expected_value(const Fault_kind& kind);

/// The table of kinds as Markdown.
[[nodiscard]] std::string fault_table();

/// A request: `NAME[=VALUE][@START[+DURATION]]`, times in seconds.
struct Fault_request {
  std::string text;
  const Fault_kind* kind = nullptr;
  Fault_value value;
  Fault_time start{};                       ///< after the request
  Fault_time duration = Fault_time::max();  ///< greatest: until it is cleared
};

/// Throws std::invalid_argument, which says what was expected and what was found where.
[[nodiscard]] Fault_request parse_fault(std::string_view text);

/// The requests of a scenario: one a line, with empty lines and comments after #. Throws
/// std::invalid_argument with the path and the line.
[[nodiscard]] std::vector<Fault_request> read_scenario(const std::string& path);

// The faults, by file.

namespace faults {

using Maker = std::unique_ptr<Fault>(const Fault_value&, Fault_time);

// fault_values.cpp: values in the records.
Maker make_stuck, make_stuck_with_counter, make_accuracy, make_drift, make_jump, make_off_globe,
    make_not_a_number, make_infinity, make_no_fix, make_value_type, make_missing, make_only_type;
Maker make_stamp_jump, make_future_stamps, make_slow_clock, make_week_rollover;
/// The choices of their values.
[[nodiscard]] std::span<const std::string_view> value_types();
[[nodiscard]] std::span<const std::string_view> members();
[[nodiscard]] std::span<const std::string_view> position_types();

/// Moves the position of every record, along its meridian and its parallel.
void move(Notification& notification, double north_m, double east_m);

// fault_flow.cpp: when and whether notifications come.
Maker make_off, make_silence, make_loss, make_delay, make_jitter, make_burst, make_duplicate,
    make_reorder, make_second_provider, make_malformed;
[[nodiscard]] std::span<const std::string_view> silent_fields();
[[nodiscard]] std::span<const std::string_view> malformations();

}  // namespace faults

}  // namespace gateway
