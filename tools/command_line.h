/// The habits that the command lines of all tools share: options, numbers, exit codes.
#pragma once

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <system_error>
#include <type_traits>

#include "tools/command.h"

namespace tools {

/// Parses the command line, with --version beside the options of `app`. Returns the exit code when
/// the program ends here: 0 after --help and --version, exit_usage after a usage error. Throws what
/// write_output() throws.
[[nodiscard]] std::optional<int> parse(CLI::App& app, int argc, char** argv);

/// Reports the exception that is being handled on standard error and returns the exit code. A
/// reader of standard output that went away ends the program quietly, with 0.
[[nodiscard]] int report_exception(const char* program);

/// The shortest decimal notation of a number.
template <class Number>
[[nodiscard]] std::string to_text(Number value) {
  char text[32];
  return std::string(text, std::to_chars(text, text + sizeof text, value).ptr);
}

/// A check for CLI::Option::transform(): a number from `low` to `high` in decimal notation. It
/// refuses NaN, infinity, and a sign where `low` is not negative.
template <class Number>
requires std::is_arithmetic_v<Number>
[[nodiscard]] CLI::Validator number(Number low, Number high) {
  const std::string range = to_text(low) + " to " + to_text(high);
  const auto check = [low, high, range](std::string& text) -> std::string {
    Number value{};
    const auto* const end = text.data() + text.size();
    const auto [parsed, error] = std::from_chars(text.data(), end, value);
    bool good = error == std::errc{} && parsed == end && value >= low && value <= high;
    if constexpr (std::is_floating_point_v<Number>) {
      good = good && std::isfinite(value) && (low < 0 || !std::signbit(value));
    }
    if (!good) return "expected a number from " + range + ", found \"" + text + "\"";
    // CLI11 would read an integer with a leading zero as an octal one.
    if constexpr (std::is_integral_v<Number>) text = to_text(value);
    return {};
  };
  return CLI::Validator(check, range);
}
/// The same for every value of a type.
template <class Number>
[[nodiscard]] CLI::Validator number() {
  using Limits = std::numeric_limits<Number>;
  return number(Limits::lowest(), Limits::max()).description("");
}

}  // namespace tools
