#include "tools/posctl/command_table.h"

#include <array>
#include <cstdint>
#include <memory>

#include "diagnosisService/DiagnosticMonitor.h"
#include "tools/command_line.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/fault.h"
#include "tools/posctl/position_choice.h"

namespace posctl {
namespace {

void add_way(CLI::App& command, Way_options& way) {
  command
      .add_option("--connect", way.connect,
                  "The application's Unix socket or, over the network, its IP address")
      ->type_name("ADDRESS");
  command.add_option("--node", way.node, "Use the network, as this node of the manifest")
      ->type_name("NAME");
}

CLI::Option* add_seconds(CLI::App& command,
                         const std::string& name,
                         double& seconds,
                         const std::string& meaning) {
  return command.add_option(name, seconds, meaning)
      ->transform(tools::number(0.0, 1e9))
      ->type_name("SECONDS");
}

void add_answer_timeout(CLI::App& command, double& timeout) {
  add_seconds(command, "--timeout", timeout, "How long to wait for the application")
      ->capture_default_str();
}

template <class Options>
void add_stream_options(CLI::App& command, Options& options) {
  command.add_option("--count", options.count, "Stop after N lines")
      ->transform(tools::number<std::uint64_t>())
      ->type_name("N");
  add_seconds(command, "--timeout", options.timeout, "Give up after this time");
  add_way(command, options.way);
}

void add_look_options(CLI::App& command, Look_options& options) {
  command.add_flag("--json", options.json, "As a JSON object");
  add_answer_timeout(command, options.timeout);
  add_way(command, options.way);
}

/// The options of a command live as long as the command can run.
template <class Options>
Run with(std::shared_ptr<Options> options, int (*run)(const Options&)) {
  return [options = std::move(options), run] { return run(*options); };
}

template <int (*Look)(const Look_options&)>
Run add_look(CLI::App& command) {
  auto options = std::make_shared<Look_options>();
  add_look_options(command, *options);
  return with(std::move(options), Look);
}

Run add_status(CLI::App& command) {
  auto options = std::make_shared<Status_options>();
  command.add_flag("--watch", options->watch, "Look again each second, until interrupted");
  add_look_options(command, *options);
  return with(std::move(options), status);
}

Run add_watch(CLI::App& command) {
  auto options = std::make_shared<Watch_options>();
  auto* output = command
                     .add_option("-o,--output", options->output,
                                 "Form of the output; table on a terminal, else lines")
                     ->check(CLI::IsMember({"table", "wide", "json", "lines"}));
  command
      .add_flag_callback(
          "--json", [options = options.get()] { options->output = "json"; }, "The same as -o json")
      ->excludes(output);
  add_stream_options(command, *options);
  command.add_option("--field", options->field, "Only this field of the Positioning service")
      ->check(CLI::IsMember({"positions", "posMapInfo"}));
  return with(std::move(options), watch);
}

Run add_describe(CLI::App& command) {
  auto options = std::make_shared<Describe_options>();
  command.add_flag("--json", options->json, "As a JSON object");
  command.add_option("--man", options->man, "Write the manual pages into this folder instead")
      ->type_name("FOLDER");
  command
      .add_option("--completion", options->completion, "Print the completion of a shell instead")
      ->check(CLI::IsMember({"bash", "zsh", "fish"}));
  command
      .add_option("--wireshark", options->wireshark,
                  "Write a Wireshark profile into this folder instead")
      ->type_name("FOLDER");
  command
      .add_option("--interfaces", options->interfaces,
                  "With --wireshark: a description that another application prints of its services")
      ->type_name("FILE")
      ->allow_extra_args(false)
      ->needs("--wireshark");
  return with(std::move(options), describe);
}

Run add_read(CLI::App& command) {
  auto options = std::make_shared<Read_options>();
  command.add_option("did", options->data_identifier, "Such as d_14a0, or all")->required();
  command.add_flag("--json", options->json, "As a JSON object");
  add_answer_timeout(command, options->timeout);
  add_way(command, options->way);
  return with(std::move(options), read);
}

Run add_monitors(CLI::App& command) {
  auto options = std::make_shared<Monitor_options>();
  command.add_flag("--json", options->json, "One JSON object a line");
  command.add_flag("--reports-only", options->reports_only, "Leave out the present states");
  add_stream_options(command, *options);
  return with(std::move(options), monitors);
}

Run add_init_monitor(CLI::App& command) {
  auto options = std::make_shared<Init_monitor_options>();
  command.add_option("monitor", options->monitor, "Such as POS_Input_GNSS or 0x83D101")->required();
  std::vector<std::string> reasons;
  const auto& known = binding::enumerators<mw::dm::dem::InitMonitorReason>;
  reasons.reserve(known.size());
  for (const auto& [value, name] : known)
    reasons.emplace_back(name);
  command.add_option("reason", options->reason, "Why the event manager would do it")
      ->required()
      ->check(CLI::IsMember(reasons));
  add_answer_timeout(command, options->timeout);
  add_way(command, options->way);
  return with(std::move(options), init_monitor);
}

Run add_state(CLI::App& command) {
  auto options = std::make_shared<State_options>();
  command.add_option("state", options->state, "The state to ask for")
      ->required()
      ->check(CLI::IsMember({"kOn", "kPrepSD"}));
  command.add_option("--sequence", options->sequence_number, "Sequence number of the request")
      ->transform(tools::number<std::uint32_t>())
      ->type_name("N")
      ->capture_default_str();
  add_answer_timeout(command, options->timeout);
  return with(std::move(options), request_state);
}

Run add_discover(CLI::App& command) {
  auto options = std::make_shared<Discover_options>();
  auto* seconds = add_seconds(command, "--for", options->seconds,
                              "How long to listen; 3, with --follow no end");
  command.add_flag("--follow", options->follow, "A line for each change");
  command.add_flag("--json", options->json, "As JSON");
  command.add_option("--node", options->node, "Act as this node of the manifest")
      ->type_name("NAME")
      ->capture_default_str();
  return [options, seconds] {
    if (seconds->empty() && !options->follow) options->seconds = 3;
    return discover(*options);
  };
}

Run add_set(CLI::App& command) {
  auto options = std::make_shared<Set_options>();
  command.add_option("key", options->key, "Such as useGNSSDR; posctl settings lists them")
      ->required();
  command.add_option("value", options->value, "true, false or a number")->required();
  add_answer_timeout(command, options->timeout);
  add_way(command, options->way);
  return with(std::move(options), set_setting);
}

Run add_log(CLI::App& command) {
  auto options = std::make_shared<Log_options>();
  command.add_option("level", options->levels, "CONTEXT=LEVEL such as GNSS=debug; none: list them");
  command.add_flag("--json", options->json, "As a JSON object");
  add_answer_timeout(command, options->timeout);
  add_way(command, options->way);
  return with(std::move(options), log);
}

Run add_call(CLI::App& command) {
  auto options = std::make_shared<Call_options>();
  command.add_option("method", options->method, "Such as Statistics.Counters; none: list them");
  command.add_option("argument", options->argument, "The argument as JSON");
  command.add_option("--instance", options->instance, "Instance of the service; usually the first")
      ->check(CLI::Range(1, 0xFFFE))
      ->type_name("N");
  add_answer_timeout(command, options->timeout);
  add_way(command, options->way);
  return with(std::move(options), call);
}

Run add_fault(CLI::App& command) {
  auto options = std::make_shared<Fault_options>();
  command
      .add_option("fault", options->what,
                  "NAME[=VALUE][@START[+DURATION]] with times in seconds, list, or clear")
      ->capture_default_str();
  command.add_option("name", options->name,
                     "The fault to clear, by its name or as it was ordered; none: all");
  command.add_flag("--json", options->json, "As a JSON object");
  add_answer_timeout(command, options->timeout);
  add_way(command, options->way);
  return with(std::move(options), fault);
}

Run add_validate(CLI::App& command) {
  auto options = std::make_shared<Validate_options>();
  command.add_option("manifest", options->manifest, "The file")->required();
  command.add_flag("--json", options->json, "As a JSON object");
  return with(std::move(options), validate);
}

Run add_explain(CLI::App& command) {
  auto options = std::make_shared<Explain_options>();
  command.add_option("name", options->name, "Such as notificationsLate; none: all names");
  auto* json = command.add_flag("--json", options->json, "As a JSON object");
  command.add_flag("--markdown", options->markdown, "As tables, one for each kind")->excludes(json);
  return with(std::move(options), explain_name);
}

Run add_exporter(CLI::App& command) {
  auto options = std::make_shared<Exporter_options>();
  command.add_option("--listen", options->listen, "IP address and port")
      ->type_name("ADDRESS:PORT")
      ->capture_default_str();
  command.add_flag("--list", options->list, "Print the table of metrics instead");
  add_way(command, options->way);
  return with(std::move(options), exporter);
}

void add_position(CLI::App& command, std::string& position) {
  command.add_option("--position", position, "The application's output, or a type of its source's")
      ->check(CLI::IsMember(position_choices()))
      ->capture_default_str();
}

Run add_export(CLI::App& command) {
  auto options = std::make_shared<Export_options>();
  const auto add = [&](const char* name, std::string& file, const char* meaning) {
    command.add_option(name, file, meaning)->type_name("FILE");
  };
  add("--gpx", options->gpx, "Write a GPX 1.1 track to this file; - is standard output");
  add("--kml", options->kml, "Write a KML 2.2 track");
  add("--csv", options->csv, "Write a table with all members of the positions");
  add("--geojson", options->geojson, "Write a GeoJSON point for each position");
  add("--from", options->from, "Read lines of posctl watch -o json instead; - is standard input");
  add_position(command, options->position);
  add_stream_options(command, *options);
  return with(std::move(options), export_track);
}

Run add_nmea(CLI::App& command) {
  auto options = std::make_shared<Nmea_options>();
  command
      .add_option("--listen", options->listen,
                  "Serve tcp:[ADDRESS:]PORT, send to udp:HOST:PORT, or print")
      ->type_name("PLACE")
      ->capture_default_str();
  add_seconds(command, "--max-age", options->max_age, "A position that is older is not valid")
      ->capture_default_str();
  add_position(command, options->position);
  add_stream_options(command, *options);
  return with(std::move(options), nmea);
}

Run add_serve(CLI::App& command) {
  auto options = std::make_shared<Serve_options>();
  command.add_option("--listen", options->listen, "IP address and port")
      ->type_name("ADDRESS:PORT")
      ->capture_default_str();
  command.add_flag("--open", options->open, "Show the page in the browser of this desktop");
  command.add_flag(
      "--control", options->control,
      "Let the page initialise monitors, ask for component states and make faults of the source");
  command.add_option("--token", options->token, "A word that each request needs")
      ->type_name("WORD")
      ->envname("POSCTL_TOKEN");
  command.add_option("--marks", options->marks, "Landmarks: a GPX or GeoJSON file")
      ->type_name("FILE");
  add_way(command, options->way);
  return with(std::move(options), serve_page);
}

Run add_doctor(CLI::App& command) {
  auto options = std::make_shared<Doctor_options>();
  command.add_flag("--json", options->json, "As a JSON object");
  command.add_flag("--list", options->list, "Print the table of checks instead");
  command.add_option("--node", options->node, "Node of the manifest")
      ->type_name("NAME")
      ->capture_default_str();
  return with(std::move(options), examine);
}

constexpr std::array all_commands{
    Command{"status", "Say whether the application is healthy, and why not",
            "The first line is the verdict: healthy, degraded or failed, with the reason.\n"
            "The exit code is 0 if the application is healthy, 1 if it is degraded or failed.",
            "posctl status --watch", add_status},
    Command{"doctor", "Say why positions are missing or wrong, and how to mend it",
            "Examines machine, manifest, network and application for at most three seconds.\n"
            "The exit code is 1 if something is wrong, 2 if it could not look.",
            "posctl doctor", add_doctor},
    Command{"watch", "Print each position as it comes",
            "Also reports when no position comes, and why. rate: over the last 32 positions.",
            "posctl watch -o wide", add_watch},
    Command{"peers", "Print subscribers, providers, and the cause of missing data", "",
            "posctl peers", add_look<peers>},
    Command{"discover", "Print everything that is offered on the network",
            "Needs no application, and also finds services that the manifest does not have.",
            "posctl discover --for 5", add_discover},
    Command{"stats", "Print the application's counters, ages, memory and clock", "",
            "posctl stats --json", add_look<stats>},
    Command{"read", "Read a diagnostic data identifier, or all",
            "Prints the bytes of the answer and what they mean.", "posctl read all", add_read},
    Command{"explain", "Say what a name means: a counter, status, setting, identifier", "",
            "posctl explain notificationsLate", add_explain},
    Command{"settings", "Print the application's settings and where they come from",
            "Compares them with the store of this machine: needs a restart, if they differ.",
            "posctl settings", add_look<settings>},
    Command{"set", "Store a setting for the next start of the application",
            "The application reads its settings once, at its start. While it runs, its store\n"
            "is not touched: the command fails with 1.",
            "posctl set useGNSSDR false", add_set},
    Command{"log", "Print or set the levels of the application's log",
            "The levels hold until the application ends. No DLT daemon is needed.\n"
            "Levels: off, fatal, error, warn, info, debug, verbose.",
            "posctl log GNSS=debug", add_log},
    Command{"call", "Call any method of a service and print its result as JSON", "",
            "posctl call Statistics.Clock", add_call},
    Command{
        "fault", "Make the GNSS source faulty: jumps, frozen or false values, silence",
        "Needs gnss-gateway --control. docs/faults.md says what the application does with each.\n"
        "list prints the known faults, and those in force.",
        "posctl fault jump=1000@5+10", add_fault},
    Command{"validate", "Say whether a file is a valid manifest",
            "The exit code is 1 if it is not.", "posctl validate config/manifest.json",
            add_validate},
    Command{
        "monitors", "Print the states of the diagnostic monitors, and each report",
        "Begins with the present state of all monitors. --count counts the reports that follow.",
        "posctl monitors", add_monitors},
    Command{"init-monitor", "Initialise a diagnostic monitor",
            "Acts as the diagnostic event manager, for example after a fault memory was cleared.",
            "posctl init-monitor POS_Input_GNSS kClear", add_init_monitor},
    Command{"state", "Ask for a component state over D-Bus", "", "posctl state kPrepSD", add_state},
    Command{"exporter", "Answer Prometheus with the application's metrics",
            "Runs until it is interrupted. pos_up is 0 while the application gives no answer.",
            "posctl exporter --listen 127.0.0.1:9464", add_exporter},
    Command{"export", "Write positions to a GPX, KML, CSV or GeoJSON file",
            "Runs until it is interrupted or done. The file is complete after every position; the\n"
            "first one replaces an older file.",
            "posctl export --gpx drive.gpx", add_export},
    Command{
        "nmea", "Send positions as NMEA 0183 sentences",
        "RMC, GGA, VTG, GSA and GST. RMC has status V while the last position is old or missing.\n"
        "Serves up to 16 clients, on this machine unless an address is given. A slow client loses\n"
        "sentences.",
        "posctl nmea --listen tcp:10110", add_nmea},
    Command{
        "serve", "Show drive, sky, health and network on a page in the browser",
        "Runs until it is interrupted. Only this machine sees the page, unless --listen names an\n"
        "address of the network. The token may also stand in POSCTL_TOKEN, where no other user\n"
        "of the machine reads it.",
        "posctl serve --open", add_serve},
    Command{"describe", "Print what is in force: the manifest and the records", "",
            "posctl describe --json", add_describe},
};

}  // namespace

std::span<const Command> commands() {
  return all_commands;
}

}  // namespace posctl
