/// Whether standard output is a terminal, and whether that has colours.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace posctl {

[[nodiscard]] inline bool is_terminal() {
  return ::isatty(STDOUT_FILENO) == 1;
}

/// On a terminal that has colours, unless NO_COLOR is in the environment.
[[nodiscard]] inline bool has_colours() {
  const char* const refused = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  return is_terminal() && (refused == nullptr || *refused == '\0') && terminal != nullptr &&
         std::string_view(terminal) != "dumb";
}

}  // namespace posctl
