/// The commands of posctl as one table. The command line, its help, the man pages and the
/// completion of shells follow it.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace posctl {

/// Runs a command whose options have been parsed. Returns the exit code.
using Run = std::function<int()>;

struct Command {
  std::string_view name;
  std::string_view summary;  ///< one line, for the list of commands
  std::string_view about;    ///< what it prints and when it fails
  std::string_view example;  ///< a command line
  Run (*add)(CLI::App&);     ///< adds the options
};

[[nodiscard]] std::span<const Command> commands();

/// The command line with all commands.
class Command_line {
 public:
  Command_line();

  /// Parses the arguments and runs the command. Returns the exit code.
  int run(int argc, char** argv);
  [[nodiscard]] CLI::App& app() { return app_; }

 private:
  CLI::App app_;
  std::vector<Run> runs_;  ///< in the order of commands()
};

/// An option of a command, in the words of its help.
struct Option_text {
  std::string names;                 ///< "-o,--output"
  std::string value;                 ///< "SECONDS", or alternatives: "table|json"; empty for a flag
  std::vector<std::string> choices;  ///< the alternatives
  std::string meaning;
  std::string usual;  ///< the value without the option
  bool positional = false;
};
[[nodiscard]] std::vector<Option_text> options_of(const CLI::App& command);

/// What each exit code means.
[[nodiscard]] std::string_view exit_codes();

}  // namespace posctl
