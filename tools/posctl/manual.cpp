#include <string>
#include <string_view>

#include "tools/posctl/command_table.h"
#include "tools/posctl/shell_files.h"

namespace posctl {
namespace {

/// As text of a manual page: its own signs stay what they are.
std::string roff(std::string_view text) {
  std::string escaped;
  bool line_begins = true;
  for (const char c : text) {
    if (line_begins && (c == '.' || c == '\'')) escaped += "\\&";
    if (c == '\\') {
      escaped += "\\e";
    } else if (c == '-') {
      escaped += "\\-";
    } else {
      escaped += c;
    }
    line_begins = c == '\n';
  }
  return escaped;
}

std::string head(const std::string& name, std::string_view summary) {
  std::string upper = name;
  for (char& c : upper)
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return ".TH " + upper + " 1 \"\" \"posctl " POS_VERSION "\"\n.SH NAME\n" + roff(name) + " \\- " +
         roff(summary) + "\n";
}

std::string exit_section() {
  return ".SH EXIT STATUS\n" + roff(exit_codes()) + "\n";
}

std::string option_entries(const CLI::App& command) {
  std::string text;
  for (const auto& option : options_of(command)) {
    std::string names = option.positional ? option.value : option.names;
    if (const auto comma = names.find(','); comma != std::string::npos)
      names.insert(comma + 1, " ");
    if (!option.positional && !option.value.empty()) names += " " + option.value;
    text += ".TP\n.B " + roff(names) + "\n" + roff(option.meaning);
    if (!option.positional && !option.usual.empty()) {
      text += ". Without it: " + roff(option.usual);
    }
    text += "\n";
  }
  return text;
}

std::string page_of(const Command& command, const CLI::App& app) {
  std::string usage = "posctl " + std::string(command.name);
  for (const auto& option : options_of(app)) {
    if (option.positional) {
      usage += option.usual.empty() ? " " + option.value : " [" + option.value + "]";
    }
  }
  std::string text = head("posctl-" + std::string(command.name), command.summary);
  text += ".SH SYNOPSIS\n.B " + roff(usage) + " [options]\n";
  if (!command.about.empty()) text += ".SH DESCRIPTION\n" + roff(command.about) + "\n";
  text += ".SH OPTIONS\n" + option_entries(app);
  text += ".SH EXAMPLE\n.EX\n" + roff(command.example) + "\n.EE\n";
  return text + exit_section() + ".SH SEE ALSO\n.BR posctl (1)\n";
}

std::string overview(const CLI::App& app) {
  std::string text = head("posctl", "shows how the POS application is, and what is configured");
  text += ".SH SYNOPSIS\n.B posctl COMMAND [options]\n.SH COMMANDS\n";
  for (const auto& command : commands()) {
    text += ".TP\n.B " + roff(command.name) + "\n" + roff(command.summary) + "\n";
  }
  text += ".SH OPTIONS\n" + option_entries(app);
  text +=
      ".SH ENVIRONMENT\n.TP\n.B POS_MANIFEST\nThe deployment manifest, the same as the "
      "application's.\n.TP\n.B NO_COLOR\nAny value: no colours.\n";
  return text + exit_section();
}

}  // namespace

std::map<std::string, std::string> manual_pages() {
  Command_line line;
  std::map<std::string, std::string> pages{{"posctl.1", overview(line.app())}};
  for (const auto& command : commands()) {
    const std::string name(command.name);
    pages["posctl-" + name + ".1"] = page_of(command, *line.app().get_subcommand(name));
  }
  return pages;
}

}  // namespace posctl
