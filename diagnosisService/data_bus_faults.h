/// Present and past faults of the consumed services: the records behind d_1190, d_1191 and d_1192.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "diagnosisService/data_identifiers.h"

namespace diagnosisService {

using lumo::services::diag::Data_bus_fault;

/// The subject of a data-bus fault: the consumed service in the high byte, its field in the low
/// byte, 0 for the service as a whole.
enum class Data_bus_element : std::uint16_t {
  gnss = 0x0100,
  gnss_positions = 0x0101,
  gnss_positions_quality = 0x0102,
  gnss_pos_gnss_sat_infos = 0x0103,
  time = 0x0200,
  time_times = 0x0201,
  time_time_settings = 0x0202,
};

/// Not thread-safe.
class Data_bus_faults {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::size_t entry_size = 5;

  /// Empties the records. A required service may be missing for at most `timeout` from `now` on.
  void reset(std::chrono::microseconds timeout, Clock::time_point now);
  /// `service` is missing until set() says that it is available.
  void require(Data_bus_element service, Clock::time_point since);
  /// Enters each required service that has been missing for longer than the time-out.
  void enter_missing(Clock::time_point now);

  /// Enters that a fault appeared or disappeared. Only a change counts; repeating the present state
  /// is cheap. Counters stop at their maximum.
  void set(Data_bus_fault fault, Data_bus_element element, bool present);
  /// The number of times that faults of this kind appeared, over all elements.
  [[nodiscard]] std::uint32_t count(Data_bus_fault fault) const { return record(fault).count; }
  /// Five bytes for each element that ever had the fault: service, field, 1 while the fault is
  /// present, occurrences in two bytes, big-endian.
  [[nodiscard]] const std::vector<std::uint8_t>& entries(Data_bus_fault fault) const {
    return record(fault).entries;
  }
  /// For each of these entries the time when the fault last appeared or disappeared.
  [[nodiscard]] const std::vector<Clock::time_point>& since(Data_bus_fault fault) const {
    return record(fault).since;
  }

 private:
  struct Required_service {
    Data_bus_element element;
    Clock::time_point since;  ///< the beginning of the wait for it
    bool found = false;
  };
  struct Record {
    std::uint32_t count = 0;
    std::vector<std::uint8_t> entries;
    std::vector<Clock::time_point> since;  ///< one for each entry
  };
  void enter(Data_bus_fault fault, Data_bus_element element, bool present);
  [[nodiscard]] const Record& record(Data_bus_fault fault) const {
    return records_[static_cast<std::size_t>(fault)];
  }

  std::array<Record, 3> records_;  ///< indexed by Data_bus_fault
  std::vector<Required_service> required_;
  std::chrono::microseconds timeout_{};
};

}  // namespace diagnosisService
