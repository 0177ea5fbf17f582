/// The sources of positions. Each runs to its end or until the output stops it.
#pragma once

#include <string_view>

#include "tools/drive/course.h"
#include "tools/gnss-gateway/input.h"
#include "tools/gnss-gateway/output.h"
#include "tools/gnss-gateway/script.h"
#include "tools/gnss-gateway/source_options.h"

namespace gateway {

/// Ends with the route, unless it loops. `course` is that of `options`.
[[nodiscard]] Source_result run_drive(const Drive_options& options,
                                      const drive::Course& course,
                                      Output& output);

/// Throws std::runtime_error with the path of the route.
[[nodiscard]] drive::Course course_of(const Drive_options& options);

/// Sends a checked script in its own time, divided by the speed-up.
[[nodiscard]] Source_result run_script(const Script_options& options,
                                       Script& script,
                                       Output& output);

/// `input` is that of `options.path`. A recording is sent in its own time, divided by the speed-up;
/// a gap in it takes at most `max_gap`. Throws std::runtime_error with the path when it cannot be
/// read, when it holds no sentence with a fix, or when the device disappears.
[[nodiscard]] Source_result run_nmea(const Nmea_options& options, Input& input, Output& output);

/// Reads HOST[:PORT[:DEVICE]], where an empty part stands for its default and an IPv6 address
/// stands in brackets. Throws std::invalid_argument.
[[nodiscard]] Gpsd_options to_gpsd_options(std::string_view text);

/// Follows gpsd until the output is done. While gpsd or its receiver is away, the notifications say
/// so, once a second.
[[nodiscard]] Source_result run_gpsd(const Gpsd_options& options, Output& output);

}  // namespace gateway
