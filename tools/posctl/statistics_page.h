/// What the Statistics service tells, as JSON and on a page.
#pragma once

#include "binding/statistics.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/page.h"

namespace posctl {

/// {"process": {…}, "counters": {…}}. Throws what connect.h tells of.
[[nodiscard]] Json read_statistics(binding::Statistics_proxy& service, Deadline deadline);

void print_process(Page& page, const Json& process);
void print_counters(Page& page, const Json& counters);

}  // namespace posctl
