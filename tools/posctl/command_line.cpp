#include "tools/command_line.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "tools/near_name.h"
#include "tools/posctl/command_table.h"

namespace posctl {
namespace {

/// Writes options with their kind of value instead of its type and limits in the program.
class Formatter : public CLI::Formatter {
 public:
  Formatter() { column_width(30); }

  /// "SECONDS" of "SECONDS:0 to 1e6", "table|json" of "TEXT:{table,json}".
  static std::string value_of(const CLI::Option& option) {
    if (option.get_type_size() == 0) return {};
    const std::string type = option.get_type_name();
    const auto colon = type.find(':');
    if (colon == std::string::npos || type[colon + 1] != '{') return type.substr(0, colon);
    std::string choices = type.substr(colon + 2, type.find('}') - colon - 2);
    std::ranges::replace(choices, ',', '|');
    return choices;
  }

 private:
  std::string make_usage(const CLI::App* app, std::string name) const override {
    std::string usage = "Usage: " + (name.empty() ? std::string() : name);
    if (app->get_parent() == nullptr) return usage + " COMMAND [options]\n";
    for (const auto& option : options_of(*app)) {
      if (option.positional) {
        usage += " " + (option.usual.empty() ? option.value : "[" + option.value + "]");
      }
    }
    return usage + " [options]\n";
  }
  std::string make_description(const CLI::App* app) const override {
    return app->get_description() + "\n\n";
  }
  std::string make_option_opts(const CLI::Option* option) const override {
    return " " + value_of(*option);
  }
  std::string make_option_desc(const CLI::Option* option) const override {
    const std::string usual = option->get_default_str();
    return option->get_description() + (usual.empty() ? "" : " [" + usual + "]");
  }
};

/// Throws nothing: an unknown option is for the parser.
std::string unknown_command(int argc, char** argv) {
  if (argc < 2 || argv[1][0] == '-') return {};
  const std::string_view name = argv[1];
  std::vector<std::string_view> names;
  for (const Command& one : commands())
    names.push_back(one.name);
  if (std::ranges::find(names, name) != names.end()) return {};
  return "there is no command \"" + std::string(name) + "\"" + tools::did_you_mean(name, names);
}

}  // namespace

std::vector<Option_text> options_of(const CLI::App& command) {
  std::vector<Option_text> all;
  for (const auto* option : command.get_options()) {
    Option_text text;
    text.positional = option->get_positional();
    text.value = Formatter::value_of(*option);
    text.names = text.positional ? option->get_name(true) : option->get_name(false, true);
    if (text.positional && text.value.find('|') == std::string::npos) {
      text.value = option->get_name(true);
      std::ranges::transform(text.value, text.value.begin(), ::toupper);
    } else if (text.value.find('|') != std::string::npos) {
      std::istringstream choices(text.value);
      for (std::string choice; std::getline(choices, choice, '|');)
        text.choices.push_back(choice);
    }
    text.meaning = option->get_description();
    text.usual = option->get_default_str();
    if (text.positional && !option->get_required()) text.usual = "optional";
    all.push_back(std::move(text));
  }
  return all;
}

std::string_view exit_codes() {
  return "Exit code: 0 done; 1 it could not be done, or a fault was found; 2 the application does\n"
         "not answer; 3 wrong usage.";
}

Command_line::Command_line()
    : app_{"Shows how the POS application is, and what is configured.", "posctl"} {
  app_.formatter(std::make_shared<Formatter>());
  app_.require_subcommand(1);
  app_.footer("posctl COMMAND --help explains a command.\n" + std::string(exit_codes()));
  for (const auto& command : commands()) {
    auto* sub = app_.add_subcommand(std::string(command.name), std::string(command.summary));
    sub->group("Commands");
    runs_.push_back(command.add(*sub));
    std::string footer(command.about);
    footer += (footer.empty() ? "" : "\n\n") + std::string("Example: ") +
              std::string(command.example) + "\n" + std::string(exit_codes());
    sub->footer(footer);
  }
}

int Command_line::run(int argc, char** argv) {
  if (const auto wrong = unknown_command(argc, argv); !wrong.empty()) {
    throw tools::Usage_error(wrong + "\nposctl --help lists the commands.");
  }
  if (const auto code = tools::parse(app_, argc, argv)) return *code;
  const auto all = commands();
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (app_.got_subcommand(std::string(all[i].name))) return runs_[i]();
  }
  return 0;
}

}  // namespace posctl
