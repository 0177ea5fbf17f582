#include "diagnosisService/data_bus_faults.h"

#include <algorithm>
#include <cstddef>
#include <limits>

namespace diagnosisService {
namespace {

template <class Number>
void count_up(Number& counter) {
  if (counter != std::numeric_limits<Number>::max()) ++counter;
}

}  // namespace

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
  const auto service = Faulty_service{static_cast<std::uint8_t>(number >> 8U)};
  const auto field = static_cast<std::uint8_t>(number & 0xFFU);

  Record& record = records_[static_cast<std::size_t>(fault)];
  auto entry = std::ranges::find_if(record.entries, [&](const Fault_entry& one) {
    return one.service == service && one.element == field;
  });
  if (entry == record.entries.end()) {
    if (!present) return;
    entry = record.entries.insert(entry, {service, field});
    record.since.emplace_back();
  }
  if (entry->present == present) return;
  entry->present = present;
  record.since[static_cast<std::size_t>(entry - record.entries.begin())] = Clock::now();
  if (!present) return;
  count_up(entry->occurrences);
  count_up(record.count);
}

}  // namespace diagnosisService
