/// posctl: the integrator's command line.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "tools/posctl/Commands.h"

int main(int argc, char** argv) try {
  CLI::App app{"Shows what the POS application does."};
  app.require_subcommand(1);
  app.get_formatter()->column_width(34);

  posctl::Watch_options watch;
  auto* watch_command =
      app.add_subcommand("watch", "Print each notification of the Positioning service");
  watch_command->add_flag("--json", watch.json, "One JSON object a line");
  watch_command->add_option("--count", watch.count, "End after so many notifications");
  watch_command
      ->add_option("--timeout", watch.timeout, "Seconds after which to give up with exit code 1")
      ->check(CLI::Range(0.0, 1e9));
  watch_command->add_option("--field", watch.field, "Only this field")
      ->check(CLI::IsMember({"positions", "posMapInfo"}));
  watch_command->add_option("--node", watch.node, "Node of the manifest")->capture_default_str();

  posctl::Read_options read;
  auto* read_command = app.add_subcommand("read", "Read a diagnostic data identifier");
  read_command->add_option("did", read.data_identifier, "Such as d_14a0")->required();
  read_command->add_flag("--json", read.json, "As a JSON object");
  read_command->add_option("--timeout", read.timeout, "Seconds to wait for service and answer")
      ->check(CLI::Range(0.0, 1e6))
      ->capture_default_str();
  read_command->add_option("--node", read.node, "Node of the manifest")->capture_default_str();

  CLI11_PARSE(app, argc, argv);
  if (watch_command->parsed()) return posctl::watch(watch);
  if (read_command->parsed()) return posctl::read(read);
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "posctl: %s\n", error.what());
  return 1;
}
