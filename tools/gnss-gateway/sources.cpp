#include "tools/gnss-gateway/sources.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "tools/drive/course.h"
#include "tools/drive/errors.h"
#include "tools/drive/route.h"
#include "tools/gnss-gateway/fix_publisher.h"
#include "tools/gnss-gateway/gpsd.h"
#include "tools/gnss-gateway/live.h"
#include "tools/gnss-gateway/notification.h"
#include "tools/nmea/reader.h"

namespace gateway {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;
using tools::Stop_signal;

/// Interval between two instants that carry no time.
constexpr auto usual_interval = 1s;

nanoseconds divided(nanoseconds time, double divisor) {
  return nanoseconds(std::llround(static_cast<double>(time.count()) / divisor));
}

/// Whether a record has coordinates that count.
bool has_fix(const std::vector<lumo::services::gnss::datatypes::DT_positions_struct>& records) {
  return std::ranges::any_of(records, [](const auto& record) {
    return record.LAT && record.LAT_valueType == binding::Value_type::physical_value;
  });
}

Source_result run_recording(const Nmea_options& options, Input& input, Output& output) {
  Fix_publisher publisher(output);
  auto due = steady_clock::now();
  bool stopped = false;
  const auto send = [&](const nmea::Fix& fix) {
    if (stopped) return;
    const auto gap = std::clamp<nanoseconds>(publisher.since_last(fix).value_or(usual_interval), 0s,
                                             options.max_gap);
    if (publisher.result().fixes + publisher.result().without_fix > 0) {
      due += divided(gap, options.speed_up);
    }
    stopped = output.wait_until(due) == Stop_signal::Wake::stopped;
    if (!stopped) publisher.publish(fix);
  };
  do {
    nmea::Reader reader;
    const auto& counts = publisher.result();
    const auto before = counts.fixes + counts.without_fix;
    while (!stopped) {
      const auto bytes = input.read();
      if (!bytes || bytes->empty()) break;
      reader.feed(*bytes, send);
    }
    if (!stopped) reader.finish(send);
    publisher.result().nmea += reader.counters();
    if (!stopped && counts.fixes + counts.without_fix == before) {
      throw std::runtime_error("\"" + options.path +
                               "\" holds no NMEA 0183 sentence of a GNSS receiver");
    }
    publisher.forget();
    input.rewind();
  } while (options.loop && !stopped);
  return publisher.result();
}

}  // namespace

drive::Course course_of(const Drive_options& options) {
  if (options.route.empty()) return {};
  try {
    return {drive::read_gpx(options.route), options.route_speed / 3.6};
  } catch (const std::invalid_argument& error) {
    throw std::runtime_error("cannot drive along \"" + options.route + "\": " + error.what());
  }
}

Source_result run_drive(const Drive_options& options, const drive::Course& course, Output& output) {
  const auto interval = nanoseconds(std::llround(1e9 / options.rate_hz));
  const auto rate =
      static_cast<std::uint32_t>(std::max<long long>(std::llround(options.rate_hz), 1));
  const bool ends = !options.route.empty() && !options.loop;
  const std::optional<drive::Errors> errors =
      options.seed ? std::optional<drive::Errors>(*options.seed) : std::nullopt;
  Source_result result;
  const auto start = steady_clock::now();
  for (std::int64_t index = 0;; ++index) {
    const auto elapsed = index * interval;
    auto time = options.start + elapsed;
    if (ends && time > course.lap_time()) return result;
    if (!options.route.empty() && options.loop) time %= course.lap_time();
    if (output.wait_until(start + elapsed) == Stop_signal::Wake::stopped) return result;
    const auto sample = course.sample(time);
    auto sky = course.sky(time, options.satellites);
    auto gnss = sample;
    auto reckoned = sample;
    if (errors) {
      sky = errors->sky(sample, sky);
      gnss = errors->gnss(sample, sky, options.start + elapsed);
      reckoned = errors->reckoned(sample, sky, options.start + elapsed);
    }
    output.publish([&](Context context) {
      context.update_rate_hz = rate;
      return to_notification(gnss, reckoned, sky, context);
    });
    ++(sample.fix != drive::Fix_type::none ? result.fixes : result.without_fix);
  }
}

Source_result run_script(const Script_options& options, Script& script, Output& output) {
  Source_result result;
  auto begin = steady_clock::now();
  do {
    nanoseconds last{};
    nanoseconds gap{};
    for (auto lines = script.next_instant(); !lines.empty(); lines = script.next_instant()) {
      if (lines.front().time > last) gap = lines.front().time - last;
      last = lines.front().time;
      if (output.wait_until(begin + divided(last, options.speed_up)) ==
          Stop_signal::Wake::stopped) {
        return result;
      }
      output.publish([&](const Context& context) {
        Notification all;
        for (const auto& [time, line] : lines)
          line.add_to(all, context);
        if (!all.positions.empty()) {
          ++(has_fix(all.positions) ? result.fixes : result.without_fix);
        }
        return all;
      });
    }
    // The next pass follows after the last gap.
    begin += divided(last + (gap > 0s ? gap : usual_interval), options.speed_up);
    script.rewind();
  } while (options.loop);
  return result;
}

Source_result run_nmea(const Nmea_options& options, Input& input, Output& output) {
  if (input.kind() == Input::Kind::recording) return run_recording(options, input, output);
  return Live(options, input, output).run();
}

Gpsd_options to_gpsd_options(std::string_view text) {
  Gpsd_options result;
  const bool bracket = text.starts_with('[');
  const auto host_end = std::min(bracket ? text.find(']') : text.find(':'), text.size());
  const auto host = text.substr(bracket ? 1 : 0, host_end - (bracket ? 1 : 0));
  auto rest = text.substr(std::min(host_end + (bracket ? 1 : 0), text.size()));
  const bool bad_host = host.find_first_of("/ ") != std::string_view::npos ||
                        (bracket && (host_end == text.size() || host.empty()));
  if (bad_host || (!rest.empty() && rest.front() != ':')) {
    throw std::invalid_argument("expected HOST[:PORT[:DEVICE]], found \"" + std::string(text) +
                                "\"");
  }
  if (!host.empty()) result.host = host;
  if (rest.empty()) return result;
  rest.remove_prefix(1);
  const auto port = rest.substr(0, rest.find(':'));
  if (!port.empty()) result.port = port;
  if (port.size() < rest.size()) result.device = rest.substr(port.size() + 1);
  return result;
}

Source_result run_gpsd(const Gpsd_options& options, Output& output) {
  return Gpsd(options, output).run();
}

}  // namespace gateway
