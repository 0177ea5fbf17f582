/// Lines for the operator of the node. The owner of the node provides the sink.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/someip/base/rate_limit.h"

namespace someip {

enum class Log_level : std::uint8_t { warning, info };
using Log_sink = std::function<void(Log_level, const std::string& text)>;

/// Limits the lines that a peer can cause at will. Thread-safe.
class Log {
 public:
  explicit Log(Log_sink sink) : sink_(std::move(sink)) {}

  void write(Log_level level, const std::string& text) const {
    if (sink_) sink_(level, text);
  }
  /// Writes at most `lines` lines of a `kind` (a literal) in five seconds. The next line gives the
  /// number of suppressed lines. `text` is a string, or a callable that makes it if it is written.
  template <class Text>
  void limited(Log_level level, std::string_view kind, Text&& text, std::uint64_t lines = 1) {
    if (!sink_) return;
    const auto suppressed = admit(kind, lines);
    if (!suppressed) return;
    std::string line;
    if constexpr (std::is_invocable_v<Text>) {
      line = text();
    } else {
      line = std::forward<Text>(text);
    }
    if (*suppressed > 0) line += " (" + std::to_string(*suppressed) + " more before)";
    sink_(level, line);
  }

  /// Reports a repeated action of a peer, identified by `kind` (a literal) and `who`. The report
  /// comes with the third time or later, once the action has gone on for 2 s. A second one needs a
  /// pause of 30 s. Writes text(), unless that is empty. Cheap enough for each message: it skips
  /// the report if another thread is here.
  template <class Text>
  void repeated(std::string_view kind, std::size_t who, Text&& text) {
    if (sink_ && goes_on(kind, who)) {
      constexpr std::uint64_t peers = 8;  // that may begin at the same time
      if (const std::string line = text(); !line.empty()) {
        limited(Log_level::warning, kind, line, peers);
      }
    }
  }

 private:
  struct Repetition {
    std::string_view kind;
    std::size_t who = 0;
    std::chrono::steady_clock::time_point first{}, last{};
    std::uint64_t count = 0;
    bool reported = false;
  };

  bool goes_on(std::string_view kind, std::size_t who) {
    constexpr std::chrono::seconds pause{30};
    constexpr std::chrono::seconds a_while{2};
    constexpr std::uint64_t several = 3;
    const auto now = std::chrono::steady_clock::now();
    const std::unique_lock lock(repetitions_mutex_, std::try_to_lock);
    if (!lock) return false;
    auto place = std::ranges::find_if(
        repetitions_, [&](const Repetition& one) { return one.who == who && one.kind == kind; });
    if (place == repetitions_.end()) {
      // A newcomer takes the place of the one that is silent for the longest time.
      place = std::ranges::min_element(repetitions_, {}, &Repetition::last);
      place->kind = {};
    }
    Repetition& known = *place;
    if (known.kind != kind || now - known.last > pause) {
      known = {kind, who, now, now, 0, false};
    }
    known.last = now;
    if (++known.count < several || now - known.first < a_while) return false;
    return !std::exchange(known.reported, true);
  }

  std::optional<std::uint64_t> admit(std::string_view kind, std::uint64_t lines) {
    const std::lock_guard lock(mutex_);
    return kinds_.try_emplace(kind, lines, std::chrono::seconds(5)).first->second.admit();
  }

  const Log_sink sink_;
  std::mutex mutex_;  ///< guards kinds_
  std::map<std::string_view, Rate_limit> kinds_;
  std::mutex repetitions_mutex_;  ///< guards repetitions_
  std::array<Repetition, 32> repetitions_;
};

}  // namespace someip
