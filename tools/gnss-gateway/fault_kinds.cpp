#include <array>
#include <charconv>
#include <cmath>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "tools/from_seconds.h"
#include "tools/gnss-gateway/fault.h"
#include "tools/near_name.h"

namespace gateway {
namespace {

using namespace faults;

/// The longest time in a request, in seconds.
constexpr double longest = 1e6;
constexpr double shortest = 1e-3;
constexpr std::size_t max_request_size = 200;
constexpr std::size_t max_scenario_requests = 256;

struct Number {
  std::string_view unit;
  double low;
  double high;
  std::string_view usual;
};

Fault_kind plain(std::string_view name, Maker* make, std::string_view meaning) {
  return {.name = name,
          .meaning = meaning,
          .unit = {},
          .low = 0,
          .high = 0,
          .choices = {},
          .usual = {},
          .make = make};
}

Fault_kind with_number(std::string_view name,
                       Maker* make,
                       const Number& number,
                       std::string_view meaning) {
  auto kind = plain(name, make, meaning);
  kind.unit = number.unit;
  kind.low = number.low;
  kind.high = number.high;
  kind.usual = number.usual;
  return kind;
}

Fault_kind with_choice(std::string_view name,
                       Maker* make,
                       std::span<const std::string_view> choices,
                       std::string_view usual,
                       std::string_view meaning) {
  auto kind = plain(name, make, meaning);
  kind.choices = choices;
  kind.usual = usual;
  return kind;
}

const auto& table() {
  static const std::array kinds{
      // Whether anything comes.
      plain("off", make_off, "the service is withdrawn"),
      with_choice("silence", make_silence, silent_fields(), "all",
                  "the service is offered, and a field, or all, is not notified"),
      with_number("loss", make_loss, {"%", 0, 100, "50"}, "this share of the instants is lost"),
      // What the positions are.
      plain("no-fix", make_no_fix, "the receiver reports the loss of its fix"),
      plain("stuck", make_stuck, "the values stand still; counter and time stamps go on"),
      plain("stuck-with-counter", make_stuck_with_counter,
            "the same notification again and again, with its counter and time stamps"),
      with_number(
          "accuracy", make_accuracy, {"m", 0.1, 1e5, "200"},
          "the positions scatter by this distance (one sigma), and the accuracies have this value"),
      with_number("drift", make_drift, {"m/s", -1000, 1000, "5"},
                  "the positions move away to the north"),
      with_number("jump", make_jump, {"m", -1e7, 1e7, "1000"},
                  "the positions are this far north of the true ones"),
      plain("off-globe", make_off_globe, "LAT is 91, LON is 181"),
      plain("not-a-number", make_not_a_number, "every floating-point quantity is NaN"),
      plain("infinity", make_infinity, "every floating-point quantity is infinite"),
      with_choice("value-type", make_value_type, value_types(), "2",
                  "every quantity of positions has this valueType, or none"),
      with_choice("missing", make_missing, members(), "LAT",
                  "a member of positions, or all, is not sent"),
      with_choice("only-type", make_only_type, position_types(), "GNSS",
                  "positions and positionsQuality hold this position type only"),
      // What time it is.
      with_number("stamp-jump", make_stamp_jump, {"s", -longest, longest, "-10"},
                  "the time stamps are off by this time"),
      with_number("future-stamps", make_future_stamps, {"s", shortest, longest, "60"},
                  "the time stamps are this far in the future"),
      with_number("slow-clock", make_slow_clock, {"ppm", 1, 1e6, "100000"},
                  "the clock behind the time stamps is slow"),
      plain("week-rollover", make_week_rollover, "the time stamps are 1024 weeks old"),
      // When it comes.
      with_number("delay", make_delay, {"s", shortest, 60, "2"}, "every notification is late"),
      with_number("jitter", make_jitter, {"s", shortest, 60, "0.5"},
                  "each notification is late by up to this time; the order stays"),
      with_number("burst", make_burst, {"s", shortest, 60, "3"},
                  "silence for this time, then all notifications of it at once"),
      plain("duplicate", make_duplicate, "every notification comes twice"),
      plain("reorder", make_reorder, "the notifications of each pair change their places"),
      // What else is on the network.
      with_number("second-provider", make_second_provider, {"m", -1e7, 1e7, "1000"},
                  "another provider offers the same instance, with positions this far north"),
      with_choice("malformed", make_malformed, malformations(), "truncated",
                  "the payloads break the rules of their encoding"),
  };
  return kinds;
}

/// Without an exponent.
std::string decimal(double value) {
  std::array<char, 64> text{};
  auto* const end =
      std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed).ptr;
  return {text.data(), end};
}

[[noreturn]] void refuse(std::string_view request, const std::string& problem) {
  throw std::invalid_argument("fault \"" + std::string(request.substr(0, max_request_size)) +
                              "\": " + problem);
}

double number_in(std::string_view request,
                 std::string_view text,
                 double low,
                 double high,
                 const std::string& expected) {
  double value = 0;
  const auto* const end = text.data() + text.size();
  const auto [parsed, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc{} || parsed != end || !(value >= low && value <= high)) {
    refuse(request, "expected " + expected + ", found \"" + std::string(text) + "\"");
  }
  return value;
}

Fault_time time_in(std::string_view request,
                   std::string_view text,
                   double low,
                   const std::string& what) {
  const double value =
      number_in(request, text, low, longest,
                what + " in seconds from " + decimal(low) + " to " + decimal(longest));
  return tools::from_seconds(value);
}

const Fault_kind& kind_named(std::string_view request, std::string_view name) {
  std::vector<std::string_view> names;
  for (const auto& kind : fault_kinds()) {
    if (kind.name == name) return kind;
    names.push_back(kind.name);
  }
  refuse(request,
         "there is no fault \"" + std::string(name) + "\"" + tools::did_you_mean(name, names));
}

Fault_value value_in(std::string_view request, const Fault_kind& kind, std::string_view text) {
  Fault_value value;
  if (kind.choices.empty()) {
    value.number = number_in(request, text, kind.low, kind.high, expected_value(kind));
    return value;
  }
  while (value.choice < kind.choices.size() && kind.choices[value.choice] != text)
    ++value.choice;
  if (value.choice == kind.choices.size()) {
    refuse(request, "expected " + expected_value(kind) + ", found \"" + std::string(text) + "\"");
  }
  return value;
}

/// The part in front of `separator`, and the rest behind it.
std::pair<std::string_view, std::optional<std::string_view>> split(std::string_view text,
                                                                   char separator) {
  const auto at = text.find(separator);
  if (at == std::string_view::npos) return {text, std::nullopt};
  return {text.substr(0, at), text.substr(at + 1)};
}

}  // namespace

std::span<const Fault_kind> fault_kinds() {
  return table();
}

std::string expected_value(const Fault_kind& kind) {
  if (!kind.has_value()) return "no value";
  if (kind.choices.empty()) {
    return "a number from " + decimal(kind.low) + " to " + decimal(kind.high) + " (" +
           std::string(kind.unit) + ")";
  }
  std::string text = "one of";
  const char* separator = " ";
  for (const auto& choice : kind.choices) {
    text.append(separator).append(choice);
    separator = ", ";
  }
  return text;
}

std::string fault_table() {
  std::string text = "| fault | value | without a value | meaning |\n|---|---|---|---|\n";
  for (const auto& kind : fault_kinds()) {
    const auto code = [](std::string_view word) {
      return word.empty() ? std::string() : "`" + std::string(word) + "`";
    };
    text += "| " + code(kind.name) + " | " + (kind.has_value() ? expected_value(kind) : "") +
            " | " + code(kind.usual) + " | " + std::string(kind.meaning) + " |\n";
  }
  return text;
}

Fault_request parse_fault(std::string_view text) {
  if (text.size() > max_request_size) {
    refuse(text, "expected at most " + std::to_string(max_request_size) + " characters");
  }
  const auto [fault, time] = split(text, '@');
  const auto [name, value] = split(fault, '=');
  const auto& kind = kind_named(text, name);
  if (value && !kind.has_value()) refuse(text, std::string(name) + " takes no value");
  Fault_request request{.text = std::string(text), .kind = &kind, .value = {}};
  if (kind.has_value()) request.value = value_in(text, kind, value.value_or(kind.usual));
  if (time) {
    const auto [start, duration] = split(*time, '+');
    request.start = time_in(text, start, 0, "a start");
    if (duration) request.duration = time_in(text, *duration, shortest, "a duration");
  }
  return request;
}

std::vector<Fault_request> read_scenario(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::invalid_argument("cannot read \"" + path + "\"");
  std::vector<Fault_request> requests;
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    const std::string_view text = split(line, '#').first;
    const auto begin = text.find_first_not_of(" \t\r");
    if (begin == std::string_view::npos) continue;
    const auto request = text.substr(begin, text.find_last_not_of(" \t\r") + 1 - begin);
    try {
      if (requests.size() == max_scenario_requests) {
        throw std::invalid_argument("expected at most " + std::to_string(max_scenario_requests) +
                                    " faults");
      }
      requests.push_back(parse_fault(request));
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument("\"" + path + "\", line " + std::to_string(number) + ": " +
                                  error.what());
    }
  }
  if (file.bad()) throw std::invalid_argument("cannot read \"" + path + "\"");
  return requests;
}

}  // namespace gateway
