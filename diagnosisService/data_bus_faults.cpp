#include "diagnosisService/data_bus_faults.h"

#include <cstddef>
#include <limits>
#include <span>

namespace diagnosisService {

void Data_bus_faults::reset(std::chrono::microseconds timeout, Clock::time_point now) {
  records_ = {};
  timeout_ = timeout;
  for (Required_service& service : required_)
    service.since = now;
}

void Data_bus_faults::require(Data_bus_element service, Clock::time_point since) {
  required_.push_back({service, since});
}

void Data_bus_faults::enter_missing(Clock::time_point now) {
  for (const Required_service& service : required_) {
    if (service.found || now - service.since <= timeout_) continue;
    enter(Data_bus_fault::not_available, service.element, true);
  }
}

void Data_bus_faults::set(Data_bus_fault fault, Data_bus_element element, bool present) {
  if (fault == Data_bus_fault::not_available) {
    for (Required_service& service : required_) {
      if (service.element == element) service.found = !present;
    }
  }
  enter(fault, element, present);
}

void Data_bus_faults::enter(Data_bus_fault fault, Data_bus_element element, bool present) {
  const auto number = static_cast<unsigned>(element);
  const auto service = static_cast<std::uint8_t>(number >> 8U);
  const auto field = static_cast<std::uint8_t>(number & 0xFFU);

  Record& record = records_[static_cast<std::size_t>(fault)];
  auto& bytes = record.entries;
  std::size_t at = 0;
  while (at < bytes.size() && (bytes[at] != service || bytes[at + 1] != field))
    at += fault_entry_size;
  if (at == bytes.size()) {
    if (!present) return;
    bytes.insert(bytes.end(), {service, field, 0, 0, 0});
    record.since.emplace_back();
  }
  auto& state = bytes[at + 2];
  if ((state != 0) == present) return;
  state = present ? 1 : 0;
  record.since[at / fault_entry_size] = Clock::now();
  if (!present) return;
  auto* const occurrences = std::as_writable_bytes(std::span{bytes}).data() + at + 3;
  const auto before = binding::load<std::uint16_t>(occurrences, binding::Byte_order::big_endian);
  if (before != std::numeric_limits<std::uint16_t>::max()) {
    binding::store(occurrences, static_cast<std::uint16_t>(before + 1),
                   binding::Byte_order::big_endian);
  }
  if (record.count != std::numeric_limits<std::uint32_t>::max()) ++record.count;
}

}  // namespace diagnosisService
