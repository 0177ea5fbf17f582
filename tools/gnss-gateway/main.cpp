/// gnss-gateway: a GNSS receiver as an ECU of the vehicle network. Offers the GNSS service (and,
/// asked to, the Time service) with positions of a synthetic drive, of an NMEA 0183 receiver
/// or recording, or of any receiver that gpsd knows.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

#include "ara/core/initialization.h"
#include "mw/com/runtime.h"
#include "tools/command_line.h"
#include "tools/gnss-gateway/explanation.h"
#include "tools/gnss-gateway/input.h"
#include "tools/gnss-gateway/output.h"
#include "tools/gnss-gateway/reasons.h"
#include "tools/gnss-gateway/sources.h"
#include "tools/stop_signal.h"

namespace {

using Nanoseconds = std::chrono::nanoseconds;

Nanoseconds from_seconds(double seconds) {
  return std::chrono::duration_cast<Nanoseconds>(std::chrono::duration<double>(seconds));
}

enum class Source : std::uint8_t { drive, nmea, gpsd };

void print(const gateway::Source_result& result,
           std::uint64_t notifications,
           Source source,
           bool as_json,
           const tools::Stop_signal& stop_signal) {
  nlohmann::ordered_json json;
  json["notifications"] = notifications;
  json["fixes"] = result.fixes;
  json["withoutFix"] = result.without_fix;
  if (source == Source::gpsd) {
    json["reports"] = result.gpsd.reports;
    json["otherReports"] = result.gpsd.other_reports;
    json["repeated"] = result.gpsd.repeated;
    json["malformed"] = result.gpsd.malformed;
  }
  if (source == Source::nmea) {
    json["sentences"] = result.nmea.sentences;
    json["otherSentences"] = result.nmea.other_sentences;
    json["duplicates"] = result.nmea.duplicates;
    json["noiseBytes"] = result.nmea.noise_bytes;
    json["errors"] = result.nmea.errors();
    for (const auto& reason : gateway::reasons) {
      json["errorsByReason"][reason.name] = result.nmea.*reason.counter;
    }
  }
  if (as_json) {
    tools::write_output(json.dump() + "\n", stop_signal.descriptor());
    return;
  }
  std::ostringstream out;
  out << notifications << " notifications, " << result.fixes << " with a fix, "
      << result.without_fix << " without\n";
  if (source == Source::gpsd) {
    out << result.gpsd.reports << " reports of gpsd, " << result.gpsd.other_reports
        << " of other kinds, " << result.gpsd.malformed << " faulty\n";
  }
  if (source == Source::nmea) {
    out << result.nmea.sentences << " sentences, " << result.nmea.other_sentences
        << " of other kinds, " << result.nmea.errors() << " faulty\n";
    for (const auto& reason : gateway::reasons) {
      if (const auto count = result.nmea.*reason.counter; count > 0) {
        out << "  " << reason.name << ": " << count << "\n";
      }
    }
  }
  tools::write_output(out.str(), stop_signal.descriptor());
}

/// The options of the command line.
struct Options {
  gateway::Drive_options drive;
  gateway::Nmea_options nmea;
  std::string gpsd;
  std::string explain;
  gateway::Output_options output;
  std::string node = "gnss-gateway";
  double start_at = 0;
  double max_gap = 2;
  double seconds = 0;
  bool once = false;
  bool json = false;
};

constexpr const char* footer =
    "Each notification holds a GNSS sample (type 1) and a dead-reckoning sample (type 2), stamped "
    "with\n"
    "the synchronized time base. A quantity that the source never has is absent; one that it "
    "cannot\n"
    "tell now has valueType 2 (Error), everything else 4 (PhysicalValue). The dead-reckoning "
    "sample\n"
    "of an NMEA receiver repeats its GNSS sample. docs/receivers.md describes sentences and "
    "records.\n"
    "\n"
    "Exit code 0 at the end of a recording or stream, after --count or --seconds, on SIGINT and\n"
    "SIGTERM; 1 when the input cannot be read, holds no sentence or is a device that has gone; 3 "
    "for\n"
    "a wrong command line.";

void add_source_options(CLI::App& app, Options& options) {
  auto* file =
      app.add_option("--nmea", options.nmea.path,
                     "Recording to replay; a serial device, a pipe or - is read as it comes");
  auto* explain = app.add_option("--explain", options.explain,
                                 "Print what a recording (or a pipe, or -) says and what it never "
                                 "says, offer nothing")
                      ->type_name("FILE")
                      ->excludes(file);
  auto* gpsd = app.add_option("--gpsd", options.gpsd,
                              "Receiver of a gpsd, HOST[:PORT[:DEVICE]]; here without a value")
                   ->expected(0, 1)
                   ->type_name("PLACE")
                   ->excludes(file)
                   ->excludes(explain);
  app.add_option("--rate", options.drive.rate_hz, "Notifications per second of the synthetic drive")
      ->transform(tools::number(0.1, 1000.0))
      ->excludes(file)
      ->excludes(gpsd)
      ->capture_default_str();
  app.add_option("--satellites", options.drive.satellites,
                 "Satellites in view in the synthetic drive")
      ->transform(tools::number<std::size_t>(0, 60))
      ->excludes(file)
      ->excludes(gpsd)
      ->capture_default_str();
  app.add_option("--start-at", options.start_at, "Second of the synthetic drive to begin with")
      ->transform(tools::number(0.0, 1e6))
      ->excludes(file)
      ->excludes(gpsd);
  app.add_option("--speed-up", options.nmea.speed_up, "How much faster than recorded")
      ->transform(tools::number(0.001, 1e6))
      ->needs(file)
      ->capture_default_str();
  app.add_option("--max-gap", options.max_gap,
                 "Longest wait in the recording's own time, in seconds")
      ->transform(tools::number(0.0, 86400.0))
      ->needs(file)
      ->capture_default_str();
  auto* route = app.add_option("--route", options.drive.route,
                               "GPX file whose points the synthetic drive follows")
                    ->excludes(file)
                    ->excludes(gpsd);
  app.add_option("--route-speed", options.drive.route_speed,
                 "Speed in km/h where the route has no speeds or times")
      ->transform(tools::number(5.0, 250.0))
      ->needs(route)
      ->capture_default_str();
  app.add_option("--seed", options.drive.seed,
                 "Adds the errors of real sensors to the synthetic drive, from this number")
      ->transform(tools::number<std::uint64_t>())
      ->excludes(file)
      ->excludes(gpsd);
  auto* loop =
      app.add_flag("--loop", options.nmea.loop, "Begin again at the end of the recording or route");
  app.add_flag("--once", options.once, "End at the recording's end (default)")
      ->needs(file)
      ->excludes(loop);
  app.add_option("--baud", options.nmea.baud,
                 "Rate of a serial device; without it the gateway tries until sentences come")
      ->check(CLI::IsMember(
          std::set<unsigned>(gateway::serial_rates.begin(), gateway::serial_rates.end())))
      ->needs(file);
  app.add_flag("--reconnect", options.nmea.reconnect,
               "Wait for a device that is not there or has gone, in place of ending with 1")
      ->needs(file);
}

void add_output_options(CLI::App& app, Options& options) {
  auto* time = app.add_flag("--time", options.output.offer_time, "Offer the Time service too");
  app.add_option("--plt-offset", options.output.plt_offset_ns,
                 "pltOffset of the Time service's record of type 2, in nanoseconds")
      ->transform(tools::number<std::int64_t>())
      ->needs(time)
      ->capture_default_str();
  app.add_option("--count", options.output.max_notifications, "End after N notifications; 0: never")
      ->transform(tools::number<std::uint64_t>());
  app.add_option("--seconds", options.seconds, "End after N seconds; 0: never")
      ->transform(tools::number(0.0, 1e9));
  app.add_option("--node", options.node, "Node of the manifest")->capture_default_str();
  app.add_flag("--json", options.json, "Print the statistics at the end as JSON");
  app.footer(footer);
}

/// Reads to the end of the input or to a stop signal.
int explain(const Options& options) {
  tools::Stop_signal stop_signal;
  gateway::Input input(options.explain);
  gateway::Explanation explanation;
  using std::chrono::steady_clock;
  while (stop_signal.wait_until(steady_clock::time_point::max(), input.descriptor()) !=
         tools::Stop_signal::Wake::stopped) {
    const auto bytes = input.read();
    if (bytes && bytes->empty()) break;
    if (bytes) explanation.feed(*bytes);
  }
  explanation.finish();
  tools::write_output(options.json ? explanation.json().dump() + "\n" : explanation.text(),
                      stop_signal.descriptor());
  return 0;
}

/// Refuses options that do not apply to `input`.
void check_options(const CLI::App& app, const gateway::Input& input) {
  const auto refuse = [&](std::initializer_list<const char*> names, const std::string& purpose) {
    for (const char* name : names) {
      if (app.count(name) > 0) {
        throw tools::Usage_error(std::string(name) + " is for " + purpose + ", and \"" +
                                 input.path() + "\" is none");
      }
    }
  };
  using Kind = gateway::Input::Kind;
  const bool missing = !input.is_open();  // and expected to be a serial device
  if (input.kind() != Kind::recording) {
    refuse({"--speed-up", "--max-gap", "--loop", "--once"}, "a recording");
  }
  if (!input.is_serial() && !missing) refuse({"--baud"}, "a serial device");
  if (input.kind() != Kind::device || input.path() == "-") refuse({"--reconnect"}, "a device");
}

int run(int argc, char** argv) {
  CLI::App app{"Offers the GNSS service with positions of a synthetic drive or of a receiver."};
  Options options;
  add_source_options(app, options);
  add_output_options(app, options);
  // Opens the input before it offers a service: a path that cannot be opened must not look like a
  // silent receiver.
  std::optional<gateway::Input> input;
  if (const auto code = tools::parse(app, argc, argv)) return *code;
  if (!options.explain.empty()) return explain(options);
  if (!options.nmea.path.empty()) {
    input.emplace(options.nmea.path, options.nmea.reconnect);
    check_options(app, *input);
  }
  if (options.nmea.loop && options.nmea.path.empty() && options.drive.route.empty()) {
    throw tools::Usage_error("--loop is for a recording or a route");
  }
  options.drive.loop = options.nmea.loop;
  std::optional<gateway::Gpsd_options> gpsd;
  try {
    if (app.count("--gpsd") > 0) gpsd = gateway::to_gpsd_options(options.gpsd);
  } catch (const std::invalid_argument& error) {
    throw tools::Usage_error(std::string("--gpsd: ") + error.what());
  }
  options.drive.start = from_seconds(options.start_at);
  options.nmea.max_gap = from_seconds(options.max_gap);
  options.output.max_duration = from_seconds(options.seconds);

  const auto course = gateway::course_of(options.drive);
  tools::Stop_signal stop_signal;
  const mw::com::runtime::Component_singleton runtime(options.node, false);
  gateway::Output services(stop_signal, options.output);
  const auto result = input  ? gateway::run_nmea(options.nmea, *input, services)
                      : gpsd ? gateway::run_gpsd(*gpsd, services)
                             : gateway::run_drive(options.drive, course, services);
  const Source source = input ? Source::nmea : gpsd ? Source::gpsd : Source::drive;
  print(result, services.notifications(), source, options.json, stop_signal);
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  ara::core::Initialize();
  return run(argc, argv);
} catch (...) {
  return tools::report_exception("gnss-gateway");
}
