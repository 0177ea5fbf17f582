/// What a command of a tool returns, refuses and prints.
#pragma once

#include <stdexcept>
#include <string_view>

namespace tools {

/// Exit code of a command that could not do its work, not write its output, or has found a fault.
inline constexpr int exit_failed = 1;
/// Exit code of a command that got no answer from the application.
inline constexpr int exit_no_answer = 2;
/// Exit code of a command line that makes no sense.
inline constexpr int exit_usage = 3;

/// The application, or what a command needs of it, does not answer.
class No_answer : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// An argument that the command refuses after the command line was parsed.
class Usage_error : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

/// Writes all of `text` to standard output before it returns, unless the descriptor `cancel`
/// becomes readable while a pipe has no room. Throws std::system_error.
void write_output(std::string_view text, int cancel = -1);

}  // namespace tools
