/// gnss-gateway: a GNSS receiver as an ECU of the vehicle network. Offers the GNSS service (and,
/// asked to, the Time service) with positions of a synthetic drive, of an NMEA 0183 receiver or
/// recording, of any receiver that gpsd knows, or of a script. On request it sends what a faulty
/// receiver would send.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/identity.h"
#include "ara/core/initialization.h"
#include "mw/com/runtime.h"
#include "tools/command_line.h"
#include "tools/from_seconds.h"
#include "tools/gnss-gateway/explanation.h"
#include "tools/gnss-gateway/input.h"
#include "tools/gnss-gateway/output.h"
#include "tools/gnss-gateway/reasons.h"
#include "tools/gnss-gateway/sources.h"
#include "tools/stop_signal.h"

namespace {

using Nanoseconds = std::chrono::nanoseconds;

enum class Source : std::uint8_t { nmea, gpsd, other };

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
  std::string script;
  double speed_up = 1;
  bool loop = false;
  gateway::Output_options output;
  std::vector<std::string> faults;
  std::string scenario;
  bool list_faults = false;
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
    "give now has valueType 2 (Error), everything else 4 (PhysicalValue). The dead-reckoning "
    "sample\n"
    "of an NMEA receiver repeats its GNSS sample. docs/receivers.md describes sentences and "
    "records,\n"
    "docs/faults.md the faults and what the application does with each.\n"
    "\n"
    "Exit code 0 at the end of a recording or stream, after --count or --seconds, on SIGINT and\n"
    "SIGTERM; 1 when the input cannot be read, holds no sentence or is a device that has gone; 3 "
    "for\n"
    "a wrong command line.";

/// The options that name a source, which exclude each other.
struct Sources {
  CLI::Option* file = nullptr;
  CLI::Option* gpsd = nullptr;
  CLI::Option* script = nullptr;
};

Sources add_recording_and_gpsd(CLI::App& app, Options& options) {
  auto* file =
      app.add_option("--nmea", options.nmea.path,
                     "Recording to replay; a serial device, a pipe or - is read as it comes");
  auto* explain = app.add_option("--explain", options.explain,
                                 "Print the sentences of a recording (or a pipe, or -) and the "
                                 "values that it never has; offer nothing")
                      ->type_name("FILE")
                      ->excludes(file);
  auto* gpsd = app.add_option("--gpsd", options.gpsd,
                              "Receiver of a gpsd, HOST[:PORT[:DEVICE]]; default: this machine")
                   ->expected(0, 1)
                   ->type_name("PLACE")
                   ->excludes(file)
                   ->excludes(explain);
  return {.file = file, .gpsd = gpsd};
}

void add_drive_options(CLI::App& app, Options& options, const Sources& sources) {
  auto* const file = sources.file;
  auto* const gpsd = sources.gpsd;
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
}

CLI::Option* add_script(CLI::App& app, Options& options, const Sources& sources) {
  auto* script = app.add_option("--script", options.script,
                                "JSON lines to send, such as posctl watch --json prints them")
                     ->excludes(sources.file)
                     ->excludes(sources.gpsd);
  for (const char* name : {"--rate", "--satellites", "--start-at"})
    app.get_option(name)->excludes(script);
  return script;
}

void add_pace_options(CLI::App& app, Options& options, CLI::Option* file) {
  app.add_option("--speed-up", options.speed_up, "How much faster than recorded")
      ->transform(tools::number(0.001, 1e6))
      ->capture_default_str();
  app.add_option("--max-gap", options.max_gap,
                 "Longest wait in the recording's own time, in seconds")
      ->transform(tools::number(0.0, 86400.0))
      ->needs(file)
      ->capture_default_str();
}

void add_route_options(CLI::App& app, Options& options, const Sources& sources) {
  const auto& [file, gpsd, script] = sources;
  auto* route = app.add_option("--route", options.drive.route,
                               "GPX file whose points the synthetic drive follows")
                    ->excludes(file)
                    ->excludes(gpsd)
                    ->excludes(script);
  app.add_option("--route-speed", options.drive.route_speed,
                 "Speed in km/h where the route has no speeds or times")
      ->transform(tools::number(5.0, 250.0))
      ->needs(route)
      ->capture_default_str();
  app.add_option("--seed", options.drive.seed,
                 "Add sensor errors to the synthetic drive; the same number, the same errors")
      ->transform(tools::number<std::uint64_t>())
      ->excludes(file)
      ->excludes(gpsd)
      ->excludes(script);
}

void add_end_options(CLI::App& app, Options& options, CLI::Option* file) {
  auto* loop = app.add_flag("--loop", options.loop,
                            "Begin again at the end of a recording, script or route");
  app.add_flag("--once", options.once, "End at the recording's end (default)")
      ->needs(file)
      ->excludes(loop);
}

void add_receiver_options(CLI::App& app, Options& options, CLI::Option* file) {
  app.add_option("--baud", options.nmea.baud,
                 "Rate of a serial device; without it the gateway tries until sentences come")
      ->check(CLI::IsMember(
          std::set<unsigned>(gateway::serial_rates.begin(), gateway::serial_rates.end())))
      ->needs(file);
  app.add_flag("--reconnect", options.nmea.reconnect,
               "Wait for a missing or lost device instead of ending with 1")
      ->needs(file);
}

/// The help prints the options in this order.
void add_source_options(CLI::App& app, Options& options) {
  Sources sources = add_recording_and_gpsd(app, options);
  add_drive_options(app, options, sources);
  sources.script = add_script(app, options, sources);
  add_pace_options(app, options, sources.file);
  add_route_options(app, options, sources);
  add_end_options(app, options, sources.file);
  add_receiver_options(app, options, sources.file);
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
  app.add_option("--node", options.output.node, "Node of the manifest")->capture_default_str();
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

/// Throws tools::Usage_error.
gateway::Gpsd_options gpsd_options(const std::string& place) try {
  return gateway::to_gpsd_options(place);
} catch (const std::invalid_argument& error) {
  throw tools::Usage_error(std::string("--gpsd: ") + error.what());
}

void add_fault_options(CLI::App& app, Options& options) {
  app.add_option("--fault", options.faults,
                 "NAME[=VALUE][@START[+DURATION]], times in seconds; may be repeated")
      ->type_name("FAULT")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--scenario", options.scenario, "File with a fault on each line")
      ->type_name("FILE");
  app.add_flag("--control", options.output.offer_fault_control,
               "Offer the service with which posctl fault makes faults");
  app.add_flag("--list-faults", options.list_faults, "Print the table of faults instead");
}

/// Throws tools::Usage_error.
std::vector<gateway::Fault_request> requested_faults(const Options& options) try {
  std::vector<gateway::Fault_request> requests;
  if (!options.scenario.empty()) requests = gateway::read_scenario(options.scenario);
  for (const auto& text : options.faults)
    requests.push_back(gateway::parse_fault(text));
  if (requests.size() > gateway::Fault_plan::max_faults) {
    throw std::invalid_argument("expected at most " +
                                std::to_string(gateway::Fault_plan::max_faults) + " faults");
  }
  return requests;
} catch (const std::invalid_argument& error) {
  throw tools::Usage_error(error.what());
}

/// Refuses options whose source is missing.
void check_options(const CLI::App& app) {
  const bool timed = app.count("--nmea") + app.count("--script") > 0;
  if (!timed && app.count("--speed-up") > 0) {
    throw tools::Usage_error("--speed-up requires --nmea or --script");
  }
  if (!timed && app.count("--route") == 0 && app.count("--loop") > 0) {
    throw tools::Usage_error("--loop requires --nmea, --script or --route");
  }
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
  CLI::App app{
      "Offers the GNSS service with positions of a synthetic drive, of a receiver or of a script, "
      "and with faults on request."};
  Options options;
  add_source_options(app, options);
  add_output_options(app, options);
  add_fault_options(app, options);
  // Opens the input before it offers a service: a path that cannot be opened must not look like a
  // silent receiver.
  std::optional<gateway::Input> input;
  std::optional<gateway::Script> script;
  if (const auto code = tools::parse(app, argc, argv)) return *code;
  if (options.list_faults) {
    tools::write_output(gateway::fault_table());
    return 0;
  }
  if (!options.explain.empty()) return explain(options);
  check_options(app);
  options.output.faults = requested_faults(options);
  if (!options.nmea.path.empty()) {
    input.emplace(options.nmea.path, options.nmea.reconnect);
    check_options(app, *input);
  }
  if (!options.script.empty()) script.emplace(options.script).check();
  std::optional<gateway::Gpsd_options> gpsd;
  if (app.count("--gpsd") > 0) gpsd = gpsd_options(options.gpsd);
  options.nmea.speed_up = options.speed_up;
  options.nmea.loop = options.drive.loop = options.loop;
  options.drive.start = tools::from_seconds(options.start_at);
  options.nmea.max_gap = tools::from_seconds(options.max_gap);
  options.output.max_duration = tools::from_seconds(options.seconds);

  const auto course = gateway::course_of(options.drive);
  tools::Stop_signal stop_signal;
  const mw::com::runtime::Component_singleton runtime(options.output.node, false);
  gateway::Output services(stop_signal, options.output);
  const auto run_source = [&] {
    if (input) return gateway::run_nmea(options.nmea, *input, services);
    if (gpsd) return gateway::run_gpsd(*gpsd, services);
    if (script) {
      return gateway::run_script({.speed_up = options.speed_up, .loop = options.loop}, *script,
                                 services);
    }
    return gateway::run_drive(options.drive, course, services);
  };
  const auto result = run_source();
  services.drain();
  const Source source = input ? Source::nmea : gpsd ? Source::gpsd : Source::other;
  print(result, services.notifications(), source, options.json, stop_signal);
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  ara::core::Initialize(positioning_application());
  return run(argc, argv);
} catch (...) {
  return tools::report_exception("gnss-gateway");
}
