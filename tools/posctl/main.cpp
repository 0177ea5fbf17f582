/// posctl: the integrator's command line.
#include <CLI/CLI.hpp>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "ara/core/initialization.h"
#include "diagnosisService/DiagnosticMonitor.h"
#include "tools/command_line.h"
#include "tools/posctl/commands.h"

namespace {

void add_way(CLI::App& command, posctl::Way_options& way) {
  command.add_option("--connect", way.connect,
                     "The application's Unix socket or, over the network, its IP address");
  command.add_option("--node", way.node, "Use the network, as this node of the manifest");
}
void add_answer_timeout(CLI::App& command, double& timeout) {
  command.add_option("--timeout", timeout, "Seconds to wait for service and answer")
      ->transform(tools::number(0.0, 1e6))
      ->capture_default_str();
}
template <class Options>
void add_stream_options(CLI::App& command, Options& options) {
  command.add_flag("--json", options.json, "One JSON object a line");
  command.add_option("--count", options.count, "Stop after N lines; 0: until interrupted")
      ->transform(tools::number<std::uint64_t>());
  command
      .add_option("--timeout", options.timeout, "Seconds after which to give up with exit code 1")
      ->transform(tools::number(0.0, 1e9));
  add_way(command, options.way);
}

void add_look_options(CLI::App& command, posctl::Look_options& options) {
  command.add_flag("--json", options.json, "As a JSON object");
  add_answer_timeout(command, options.timeout);
  add_way(command, options.way);
}

/// The values of an enumeration, for an option that takes names.
template <class Enumeration>
std::map<std::string, unsigned> numbers_by_name() {
  std::map<std::string, unsigned> numbers;
  for (const auto& [value, name] : binding::enumerators<Enumeration>)
    numbers.emplace(name, static_cast<unsigned>(value));
  return numbers;
}

}  // namespace

int main(int argc, char** argv) try {
  ara::core::Initialize();
  CLI::App app{"Shows what the POS application does, and what is configured."};
  app.require_subcommand(1);
  app.get_formatter()->column_width(34);

  posctl::Watch_options watch;
  auto* watch_command =
      app.add_subcommand("watch", "Print each notification of the Positioning service");
  add_stream_options(*watch_command, watch);
  watch_command->add_option("--field", watch.field, "Only this field")
      ->check(CLI::IsMember({"positions", "posMapInfo"}));

  bool describe_as_json = false;
  auto* describe_command =
      app.add_subcommand("describe", "Print what is in force: the manifest and the records");
  describe_command->add_flag("--json", describe_as_json, "As a JSON object");

  posctl::Read_options read;
  auto* read_command = app.add_subcommand("read", "Read a diagnostic data identifier");
  read_command->add_option("did", read.data_identifier, "Such as d_14a0")->required();
  read_command->add_flag("--json", read.json, "As a JSON object");
  add_answer_timeout(*read_command, read.timeout);
  add_way(*read_command, read.way);

  posctl::Monitor_options monitors;
  auto* monitors_command =
      app.add_subcommand("monitors", "Print each action that a diagnostic monitor reports");
  add_stream_options(*monitors_command, monitors);

  posctl::Init_monitor_options init_monitor;
  auto* init_monitor_command =
      app.add_subcommand("init-monitor", "Initialise a diagnostic monitor");
  init_monitor_command
      ->add_option("monitor", init_monitor.monitor, "Such as POS_Input_GNSS or 0x83D101")
      ->required();
  init_monitor_command->add_option("reason", init_monitor.reason, "kClear, kRestart or kReenabled")
      ->required()
      ->transform(CLI::CheckedTransformer(numbers_by_name<mw::dm::dem::InitMonitorReason>()));
  add_answer_timeout(*init_monitor_command, init_monitor.timeout);
  add_way(*init_monitor_command, init_monitor.way);

  posctl::State_options state;
  auto* state_command = app.add_subcommand("state", "Ask for a component state over D-Bus");
  state_command->add_option("state", state.state, "kOn or kPrepSD")
      ->required()
      ->check(CLI::IsMember({"kOn", "kPrepSD"}));
  state_command->add_option("--sequence", state.sequence_number, "Sequence number of the request")
      ->transform(tools::number<std::uint32_t>())
      ->capture_default_str();
  add_answer_timeout(*state_command, state.timeout);

  posctl::Look_options stats;
  auto* stats_command =
      app.add_subcommand("stats", "Print the application's counters, ages, memory and clock");
  add_look_options(*stats_command, stats);

  posctl::Look_options peers;
  auto* peers_command =
      app.add_subcommand("peers", "Print subscribers, used services, and why no data flows");
  add_look_options(*peers_command, peers);

  posctl::Discover_options discover;
  std::optional<double> discover_seconds;
  auto* discover_command =
      app.add_subcommand("discover", "Print everything that is offered on the network");
  discover_command
      ->add_option("--for", discover_seconds, "Seconds to listen; 3, with --follow no end")
      ->transform(tools::number(0.0, 1e6));
  discover_command->add_flag("--follow", discover.follow, "A line for each change");
  discover_command->add_flag("--json", discover.json, "As JSON");
  discover_command->add_option("--node", discover.node, "Node of the manifest")
      ->capture_default_str();

  posctl::Look_options status;
  auto* status_command = app.add_subcommand("status", "Print the application's state on one page");
  add_look_options(*status_command, status);

  if (const auto code = tools::parse(app, argc, argv)) return *code;
  if (watch_command->parsed()) return posctl::watch(watch);
  if (describe_command->parsed()) return posctl::describe_deployment(describe_as_json);
  if (read_command->parsed()) return posctl::read(read);
  if (monitors_command->parsed()) return posctl::monitors(monitors);
  if (init_monitor_command->parsed()) return posctl::init_monitor(init_monitor);
  if (state_command->parsed()) return posctl::request_state(state);
  if (stats_command->parsed()) return posctl::stats(stats);
  if (peers_command->parsed()) return posctl::peers(peers);
  if (discover_command->parsed()) {
    discover.seconds = discover_seconds.value_or(discover.follow ? 0 : 3);
    return posctl::discover(discover);
  }
  if (status_command->parsed()) return posctl::status(status);
  return 0;
} catch (...) {
  return tools::report_exception("posctl");
}
