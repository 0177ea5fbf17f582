#include <algorithm>
#include <array>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/posctl/command_table.h"
#include "tools/posctl/glossary.h"
#include "tools/posctl/shell_files.h"

namespace posctl {
namespace {

using Words = std::vector<std::string>;

std::string joined(const Words& words) {
  std::string text;
  for (const auto& word : words)
    text += (text.empty() ? "" : " ") + word;
  return text;
}

/// The names of an option, one by one.
Words names_of(const Option_text& option) {
  Words names;
  std::istringstream all(option.names);
  for (std::string name; std::getline(all, name, ',');)
    names.push_back(name);
  return names;
}

bool is_path(const Option_text& option) {
  return option.value == "FILE" || option.value == "FOLDER";
}

/// The words that may stand at the place of a command's first argument.
Words arguments_of(std::string_view command, const std::vector<Option_text>& options) {
  constexpr std::array<std::pair<std::string_view, std::string_view>, 4> kinds{
      {{"read", "identifier"}, {"init-monitor", "monitor"}, {"set", "setting"}, {"explain", ""}}};
  const auto* const kind = std::ranges::find(kinds, command, &decltype(kinds)::value_type::first);
  Words words;
  if (kind != kinds.end()) {
    for (const auto& term : glossary()) {
      if (kind->second.empty() || term.kind == kind->second) words.push_back(term.name);
    }
    if (command == "read") words.emplace_back("all");
    return words;
  }
  for (const auto& option : options) {
    if (option.positional) return option.choices;
  }
  return words;
}

struct Described_command {
  std::string name;
  std::string summary;
  std::vector<Option_text> options;
  Words arguments;
};

std::vector<Described_command> described() {
  Command_line line;
  std::vector<Described_command> all;
  for (const auto& command : commands()) {
    const std::string name(command.name);
    auto options = options_of(*line.app().get_subcommand(name));
    auto arguments = arguments_of(name, options);
    all.push_back({name, std::string(command.summary), std::move(options), std::move(arguments)});
  }
  return all;
}

/// In single quotes of a shell.
std::string quoted(std::string text) {
  for (std::size_t at = 0; (at = text.find('\'', at)) != std::string::npos; at += 4)
    text.replace(at, 1, "'\\''");
  return "'" + text + "'";
}

std::string bash() {
  Words names;
  std::string values;
  std::string words;
  for (const auto& command : described()) {
    names.push_back(command.name);
    Words all = command.arguments;
    for (const auto& option : command.options) {
      if (option.positional) continue;
      for (const auto& name : names_of(option)) {
        all.push_back(name);
        if (option.value.empty()) continue;
        values +=
            "    '" + command.name + " " + name + "') words='" + joined(option.choices) + "' ;;\n";
      }
    }
    words += "      " + command.name + ") words=" + quoted(joined(all)) + " ;;\n";
  }
  return "_posctl() {\n"
         "  local words='' cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
         "  if ((COMP_CWORD == 1)); then\n"
         "    COMPREPLY=($(compgen -W '" +
         joined(names) +
         " --help --version' -- \"$cur\"))\n"
         "    return\n"
         "  fi\n"
         "  case \"${COMP_WORDS[1]} $prev\" in\n" +
         values + "    *) case \"${COMP_WORDS[1]}\" in\n" + words +
         "    esac ;;\n"
         "  esac\n"
         "  COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
         "}\n"
         "complete -o default -F _posctl posctl\n";
}

/// Of _arguments: colons and brackets are its own signs.
std::string zsh_text(std::string text) {
  std::ranges::replace(text, ':', ' ');
  std::ranges::replace(text, '[', '(');
  std::ranges::replace(text, ']', ')');
  return text;
}

std::string zsh() {
  std::string names;
  std::string cases;
  for (const auto& command : described()) {
    names += "    " + quoted(command.name + ":" + zsh_text(command.summary)) + "\n";
    cases += "    " + command.name + ") _arguments";
    for (const auto& option : command.options) {
      if (option.positional) continue;
      for (const auto& name : names_of(option)) {
        std::string text = name + "[" + zsh_text(option.meaning) + "]";
        if (!option.value.empty()) {
          text += is_path(option)          ? ":file:_files"
                  : option.choices.empty() ? ":" + option.value + ": "
                                           : ":value:(" + joined(option.choices) + ")";
        }
        cases += " " + quoted(text);
      }
    }
    cases += " " + quoted(command.arguments.empty() ? "*:file:_files"
                                                    : "*:name:(" + joined(command.arguments) + ")");
    cases += " ;;\n";
  }
  return "#compdef posctl\n"
         "_posctl() {\n"
         "  local -a names\n"
         "  names=(\n" +
         names +
         "  )\n"
         "  if ((CURRENT == 2)); then\n"
         "    _describe command names\n"
         "    return\n"
         "  fi\n"
         "  local command=$words[2]\n"
         "  shift words; ((CURRENT--))\n"
         "  case $command in\n" +
         cases +
         "  esac\n"
         "}\n"
         "_posctl \"$@\"\n";
}

std::string fish() {
  std::string text = "complete -c posctl -f\n";
  for (const auto& command : described()) {
    text += "complete -c posctl -n __fish_use_subcommand -a " + command.name + " -d " +
            quoted(command.summary) + "\n";
    const std::string here =
        "complete -c posctl -n '__fish_seen_subcommand_from " + command.name + "'";
    for (const auto& option : command.options) {
      if (option.positional) continue;
      std::string line = here;
      for (const auto& name : names_of(option)) {
        line += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
      }
      if (!option.value.empty()) line += is_path(option) ? " -r -F" : " -x";
      if (!option.choices.empty()) line += " -a " + quoted(joined(option.choices));
      text += line + " -d " + quoted(option.meaning) + "\n";
    }
    if (!command.arguments.empty())
      text += here + " -a " + quoted(joined(command.arguments)) + "\n";
    if (command.name == "validate") text += here + " -F\n";
  }
  return text;
}

}  // namespace

std::string completion(const std::string& shell) {
  return shell == "bash" ? bash() : shell == "zsh" ? zsh() : fish();
}

}  // namespace posctl
