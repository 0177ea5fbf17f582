/// The values that the records of the diagnosis and of the Statistics service carry as numbers.
#pragma once

#include <array>
#include <cstdint>

#include "binding/record.h"

namespace lumo::services::diag {

/// Values of a status byte.
enum Status : std::uint8_t { nominal = 0, error = 1, init = 2, not_available = 3 };
constexpr auto enumerators_of(Status) {
  return std::to_array<binding::Enumerator<Status>>({{Status::nominal, "Nominal"},
                                                     {Status::error, "Error"},
                                                     {Status::init, "Init"},
                                                     {Status::not_available, "NotAvailable"}});
}

/// The part of the status block to which a byte belongs: d_14a0, d_14a1 or d_14a3. `none` is that
/// of a monitor without a status byte; no record carries it.
enum class Status_group : std::uint8_t { input = 0, output = 1, system = 2, none };
constexpr auto enumerators_of(Status_group) {
  using enum Status_group;
  return std::to_array<binding::Enumerator<Status_group>>(
      {{input, "input"}, {output, "output"}, {system, "system function"}});
}

/// Kinds of faults of a consumed service: the entries of d_1190, d_1191 and d_1192.
enum class Data_bus_fault : std::uint8_t {
  not_available = 0,
  error_value_received = 1,
  implausible = 2
};
constexpr auto enumerators_of(Data_bus_fault) {
  using enum Data_bus_fault;
  return std::to_array<binding::Enumerator<Data_bus_fault>>({{not_available, "not available"},
                                                             {error_value_received, "error value"},
                                                             {implausible, "implausible"}});
}

/// The consumed service that has a fault.
enum class Faulty_service : std::uint8_t { gnss = 1, time = 2 };
constexpr auto enumerators_of(Faulty_service) {
  using enum Faulty_service;
  return std::to_array<binding::Enumerator<Faulty_service>>({{gnss, "GNSS"}, {time, "Time"}});
}

}  // namespace lumo::services::diag
