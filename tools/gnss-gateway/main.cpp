/// gnss-gateway: a GNSS receiver as an ECU of the vehicle network. Offers the GNSS service (and,
/// asked to, the Time service) with positions of a synthetic drive or of an NMEA 0183 receiver or
/// recording.
#include <CLI/CLI.hpp>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>

#include "ara/core/initialization.h"
#include "mw/com/runtime.h"
#include "tools/Command_line.h"
#include "tools/Stop_signal.h"
#include "tools/gnss-gateway/Output.h"
#include "tools/gnss-gateway/Sources.h"

namespace {

using Nanoseconds = std::chrono::nanoseconds;

Nanoseconds from_seconds(double seconds) {
  return std::chrono::duration_cast<Nanoseconds>(std::chrono::duration<double>(seconds));
}

struct Reason {
  const char* name;
  std::uint64_t nmea::Counters::*counter;
};
constexpr Reason reasons[] = {
    {"tooLong", &nmea::Counters::too_long},
    {"badCharacter", &nmea::Counters::bad_character},
    {"incomplete", &nmea::Counters::incomplete},
    {"checksumMissing", &nmea::Counters::checksum_missing},
    {"checksumMismatch", &nmea::Counters::checksum_mismatch},
    {"malformedField", &nmea::Counters::malformed_field},
    {"incompleteGroups", &nmea::Counters::incomplete_groups},
};

void print(const gateway::Source_result& result,
           std::uint64_t notifications,
           bool nmea,
           bool as_json) {
  nlohmann::ordered_json json;
  json["notifications"] = notifications;
  json["fixes"] = result.fixes;
  json["withoutFix"] = result.without_fix;
  if (nmea) {
    json["sentences"] = result.nmea.sentences;
    json["otherSentences"] = result.nmea.other_sentences;
    json["duplicates"] = result.nmea.duplicates;
    json["noiseBytes"] = result.nmea.noise_bytes;
    json["errors"] = result.nmea.errors();
    for (const auto& reason : reasons) {
      json["errorsByReason"][reason.name] = result.nmea.*reason.counter;
    }
  }
  if (as_json) {
    tools::write_output(json.dump() + "\n");
    return;
  }
  std::ostringstream out;
  out << notifications << " notifications, " << result.fixes << " with a fix, "
      << result.without_fix << " without\n";
  if (nmea) {
    out << result.nmea.sentences << " sentences, " << result.nmea.other_sentences
        << " of other kinds, " << result.nmea.errors() << " faulty\n";
    for (const auto& reason : reasons) {
      if (const auto count = result.nmea.*reason.counter; count > 0) {
        out << "  " << reason.name << ": " << count << "\n";
      }
    }
  }
  tools::write_output(out.str());
}

}  // namespace

int main(int argc, char** argv) try {
  ara::core::Initialize();
  CLI::App app{
      "Offers the GNSS service with positions of a synthetic drive or of an NMEA 0183 receiver."};
  gateway::Drive_options drive;
  gateway::Nmea_options nmea;
  gateway::Output_options output;
  std::string node = "gnss-gateway";
  double start_at = 0;
  double max_gap = 2;
  double seconds = 0;
  bool once = false;
  bool json = false;

  app.add_option("--rate", drive.rate_hz, "Notifications per second of the synthetic drive")
      ->transform(tools::number(0.1, 1000.0))
      ->capture_default_str();
  app.add_option("--satellites", drive.satellites, "Satellites in view in the synthetic drive")
      ->transform(tools::number<std::size_t>(0, 60))
      ->capture_default_str();
  app.add_option("--start-at", start_at, "Second of the synthetic drive to begin with")
      ->transform(tools::number(0.0, 1e6));
  auto* file = app.add_option("--nmea", nmea.path,
                              "Recording to replay; a device, a pipe or - is read as it comes");
  app.add_option("--speed-up", nmea.speed_up, "How much faster than recorded")
      ->transform(tools::number(0.001, 1e6))
      ->needs(file)
      ->capture_default_str();
  app.add_option("--max-gap", max_gap, "Longest wait in the recording's own time, in seconds")
      ->transform(tools::number(0.0, 86400.0))
      ->needs(file)
      ->capture_default_str();
  auto* loop = app.add_flag("--loop", nmea.loop, "Begin again at the recording's end")->needs(file);
  app.add_flag("--once", once, "End at the recording's end (default)")->needs(file)->excludes(loop);
  app.add_flag("--time", output.offer_time, "Offer the Time service too");
  app.add_option("--plt-offset", output.plt_offset_ns,
                 "pltOffset of the Time service's record of type 2, in nanoseconds")
      ->transform(tools::number<std::int64_t>())
      ->capture_default_str();
  app.add_option("--count", output.max_notifications, "Stop after N notifications; 0: never")
      ->transform(tools::number<std::uint64_t>());
  app.add_option("--seconds", seconds, "Stop after this many seconds; 0: never")
      ->transform(tools::number(0.0, 1e9));
  app.add_option("--node", node, "Node of the manifest")->capture_default_str();
  app.add_flag("--json", json, "Print the statistics at the end as JSON");
  app.footer(
      "Each notification holds a GNSS sample (type 1) and a dead-reckoning sample (type 2), "
      "stamped with\n"
      "the synchronized time base. A quantity that the source never has is absent; one that it "
      "cannot\n"
      "tell now has valueType 2 (Error), everything else 4 (PhysicalValue). An NMEA receiver has "
      "no\n"
      "sensors: its dead-reckoning sample repeats the GNSS sample.");
  if (const auto code = tools::parse(app, argc, argv)) return *code;
  drive.start = from_seconds(start_at);
  nmea.max_gap = from_seconds(max_gap);
  output.max_duration = from_seconds(seconds);

  // Before anything is offered: what cannot be opened must not look like a receiver that is silent.
  std::optional<gateway::Input> input;
  if (!nmea.path.empty()) input.emplace(nmea.path);
  tools::Stop_signal stop_signal;
  const mw::com::runtime::Component_singleton runtime(node, false);
  gateway::Output services(stop_signal, output);
  const auto result =
      input ? gateway::run_nmea(nmea, *input, services) : gateway::run_drive(drive, services);
  print(result, services.notifications(), input.has_value(), json);
  return 0;
} catch (...) {
  return tools::report_exception("gnss-gateway");
}
