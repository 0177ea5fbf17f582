#include "diagnosisService/status_book.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

namespace diagnosisService {

namespace {

/// An output depends on a system function: while the function is in Error or Init, so is the
/// output.
struct Output_rule {
  std::size_t output;
  std::size_t system_byte;
};
constexpr std::array output_rules{Output_rule{0, system_map_matching}, Output_rule{1, system_pgf}};

}  // namespace

Status_book::Status_book() {
  forget_data(not_in_table);
}

void Status_book::forget_data(Clock::rep as) {
  for (auto& last : last_data_)
    last.store(as, std::memory_order_relaxed);
}

std::size_t Status_book::place(Status_group group, std::size_t byte) {
  switch (group) {
    case Status_group::output:
      return input_count + byte;
    case Status_group::system:
      return input_count + output_count + byte;
    default:
      return byte;
  }
}

std::uint8_t& Status_book::byte_of(Status_group group, std::size_t byte) {
  switch (group) {
    case Status_group::output:
      return bytes_.output[byte];
    case Status_group::system:
      return bytes_.system[byte];
    default:
      return bytes_.input[byte];
  }
}

std::uint8_t Status_book::become(Status_group group,
                                 std::size_t byte,
                                 std::uint8_t status,
                                 Clock::time_point at) {
  const auto before = std::exchange(byte_of(group, byte), status);
  if (before != status) since_[place(group, byte)] = at;
  return before;
}

void Status_book::reset(std::chrono::microseconds timeout, Clock::time_point now) {
  bytes_ = {};
  since_.fill(now);
  timeout_ = timeout;
  forget_data(no_data);
}

void Status_book::data_received(std::uint32_t identifier, Clock::time_point at) noexcept {
  const auto index = monitor_index(identifier);
  if (index == no_monitor) return;
  auto& last = last_data_[index];
  if (last.load(std::memory_order_relaxed) == not_in_table) return;
  last.store(std::max(at.time_since_epoch().count(), no_data + 1), std::memory_order_relaxed);
}

void Status_book::set_system_status(std::size_t byte, std::uint8_t status, Clock::time_point now) {
  if (byte >= system_count) {
    throw std::out_of_range{"system status byte " + std::to_string(byte) + ", expected 0 to " +
                            std::to_string(system_count - 1)};
  }
  become(Status_group::system, byte, status, now);
}

void Status_book::apply_sensor_setup(Clock::time_point now) {
  for (std::size_t sensor = 0; sensor < sensors_.size(); ++sensor) {
    if (!sensors_[sensor]) {
      become(Status_group::input, sensor, Status::not_available, now);
    } else if (bytes_.input[sensor] != Status::nominal) {
      become(Status_group::input, sensor, Status::init, now);
    }
  }
}

void Status_book::clear(std::uint32_t identifier, Clock::time_point at) {
  const auto index = monitor_index(identifier);
  if (index == no_monitor) return;
  const auto& monitor = monitor_table[index];
  // System functions and the static output are not evaluated, so a cleared Error would never
  // return.
  const bool clearable =
      monitor.group == Status_group::input ||
      (monitor.group == Status_group::output && monitor.byte < output_rules.size());
  if (!clearable) return;
  if (byte_of(monitor.group, monitor.byte) != Status::error) return;
  data_received(identifier, at);
  become(monitor.group, monitor.byte, Status::nominal, at);
}

std::uint8_t Status_book::status(std::uint32_t identifier) const {
  const auto index = monitor_index(identifier);
  if (index == no_monitor) return Status::nominal;
  const auto& monitor = monitor_table[index];
  switch (monitor.group) {
    case Status_group::input:
      return bytes_.input[monitor.byte];
    case Status_group::output:
      return bytes_.output[monitor.byte];
    case Status_group::system:
      return bytes_.system[monitor.byte];
    case Status_group::none:
      break;
  }
  return Status::nominal;
}

std::uint8_t Status_book::evaluated(std::size_t monitor,
                                    std::uint8_t status,
                                    Clock::time_point now) const {
  const auto last = last_data_[monitor].load(std::memory_order_relaxed);
  if (last == not_in_table) return status;
  const bool late = last == no_data || now - Clock::time_point{Clock::duration{last}} > timeout_;
  switch (status) {
    case Status::nominal:
    case Status::error:
      return late ? Status::error : Status::nominal;
    case Status::init:
      return late ? Status::init : Status::nominal;
    default:
      return status;
  }
}

std::vector<Status_book::Change> Status_book::evaluate(Clock::time_point now) {
  std::vector<Change> changes;
  const auto take = [&](std::size_t index, std::uint8_t status) {
    const auto& monitor = monitor_table[index];
    const auto before = become(monitor.group, monitor.byte, status, now);
    if (before != status) changes.push_back({&monitor, before, status});
  };
  for (std::size_t sensor = 0; sensor < input_count; ++sensor) {
    if (!sensors_[sensor]) continue;
    const auto index = monitor_index(Status_group::input, sensor);
    take(index, evaluated(index, bytes_.input[sensor], now));
  }
  for (const auto& rule : output_rules) {
    const auto index = monitor_index(Status_group::output, rule.output);
    const auto governing = bytes_.system[rule.system_byte];
    const bool governed = governing == Status::error || governing == Status::init;
    take(index, governed ? governing : evaluated(index, bytes_.output[rule.output], now));
  }
  return changes;
}

}  // namespace diagnosisService
