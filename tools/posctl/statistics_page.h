/// The answers of the Statistics service, as JSON and on a page.
#pragma once

#include <string>

#include "binding/statistics.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/page.h"

namespace posctl {

/// {"process": {…}, "clock": {…}, "stamps": {…}, "ages": {name: {"sinceStart": {…}, "last10S":
/// {…}}}, "counters": {…}}. Throws what the functions of connect.h throw.
[[nodiscard]] Json read_statistics(binding::Statistics_proxy& service, Deadline deadline);

/// {"schema": 1, "offered": […], "consumed": […], "otherSubscribers": […]}.
[[nodiscard]] Json json_of(const mw::com::runtime::Peers& peers);

/// For behind an age: " (clock not synchronised)", or nothing.
[[nodiscard]] std::string clock_mark(const Json& clock);

void print_process(Page& page, const Json& process);
void print_clock(Page& page, const Json& clock);
/// The ages of positions, and the faults of their stamps.
void print_ages(Page& page, const Json& statistics);
void print_counters(Page& page, const Json& counters);

}  // namespace posctl
