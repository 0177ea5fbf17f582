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
using lumo::services::diag::Fault_entry;
using lumo::services::diag::Faulty_service;

constexpr std::uint16_t element_number(Faulty_service service, std::uint8_t field) {
  return static_cast<std::uint16_t>(static_cast<unsigned>(service) << 8U | field);
}
/// The subject of a data-bus fault: the consumed service in the high byte, its field in the low
/// byte, 0 for the service as a whole.
enum class Data_bus_element : std::uint16_t {
  gnss = element_number(Faulty_service::gnss, 0),
  gnss_positions = element_number(Faulty_service::gnss, 1),
  gnss_positions_quality = element_number(Faulty_service::gnss, 2),
  gnss_pos_gnss_sat_infos = element_number(Faulty_service::gnss, 3),
  time = element_number(Faulty_service::time, 0),
  time_times = element_number(Faulty_service::time, 1),
  time_time_settings = element_number(Faulty_service::time, 2),
};

/// Not thread-safe.
class Data_bus_faults {
 public:
  using Clock = std::chrono::steady_clock;

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
  /// Of each element that ever had the fault.
  [[nodiscard]] const std::vector<Fault_entry>& entries(Data_bus_fault fault) const {
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
    std::vector<Fault_entry> entries;
    std::vector<Clock::time_point> since;  ///< one for each entry
  };
  void enter(Data_bus_fault fault, Data_bus_element element, bool present);
  [[nodiscard]] const Record& record(Data_bus_fault fault) const {
    return records_[static_cast<std::size_t>(fault)];
  }

  std::array<Record, binding::enumerators<Data_bus_fault>.size()>
      records_;  ///< indexed by Data_bus_fault
  std::vector<Required_service> required_;
  std::chrono::microseconds timeout_{};
};

}  // namespace diagnosisService
