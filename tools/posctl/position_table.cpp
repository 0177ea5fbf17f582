#include "tools/posctl/position_table.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "tools/posctl/page.h"

namespace posctl {
namespace {

/// "23:58:12.123".
std::string local_time() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch() %
                                                                        std::chrono::seconds(1))
                      .count();
  std::tm local{};
  localtime_r(&seconds, &local);
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min,
                local.tm_sec, static_cast<int>(ms));
  return text.data();
}

std::string text_of(std::chrono::duration<double> time) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f s", time.count());
  return text.data();
}

struct Column {
  const char* title;
  const char* member;
  int width;
  int digits;
  bool wide;
};
constexpr std::array columns{Column{"latitude", "LAT", 11, 7, false},
                             Column{"longitude", "LON", 12, 7, false},
                             Column{"\u00b1 m", "accuracyHorizontal", 5, 1, false},
                             Column{"alt m", "altitudeMeanSeaLevel", 7, 1, false},
                             Column{"m/s", "speed2D", 6, 2, false},
                             Column{"heading", "yawAngle", 7, 1, false},
                             Column{"\u00b1 alt", "accuracyVertical", 6, 1, true},
                             Column{"m/s up", "speedVertical", 7, 2, true},
                             Column{"deg/s", "yawRate", 7, 2, true},
                             Column{"pitch", "pitchAngle", 6, 1, true},
                             Column{"roll", "rollAngle", 6, 1, true},
                             Column{"course", "courseOverGround", 7, 1, true},
                             Column{"message", "messageCounter", 8, 0, true}};

/// To the right, in letters: a two-byte letter takes one place.
std::string padded(const std::string& text, int width) {
  const auto letters = std::ranges::count_if(
      text, [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; });
  return std::string(static_cast<std::size_t>(std::max<std::ptrdiff_t>(width - letters, 0)), ' ') +
         text;
}

std::string number(double value, int digits) {
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), "%.*f", digits, value);
  return text.data();
}

}  // namespace

std::string Position_table::header() const {
  std::string line = "time        " + padded("rate/s", 6) + padded("age ms", 8);
  for (const auto& column : columns) {
    if (wide_ || !column.wide) line += padded(column.title, column.width + 1);
  }
  return line;
}

std::vector<std::string> Position_table::rows(const Json& record,
                                              std::optional<double> age_ms,
                                              Time now) {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> lines;
  if (reported_.count() != 0 && count_ != 0)
    lines.push_back(local_time() + " back after " + text_of(now - *last_));
  reported_ = {};
  last_ = now;
  arrivals_[count_++ % arrivals_.size()] = now;

  const double per_second = rate();
  std::string line =
      local_time() +
      padded(per_second == 0 ? "-" : number(per_second, per_second < 100 ? 1 : 0), 6) +
      padded(age_ms ? number(*age_ms, 1) : "-", 8);
  if (!record.contains("LAT") || !record.contains("LON")) {
    lines.push_back(line + "  no coordinates");
    return lines;
  }
  for (const auto& column : columns) {
    if (column.wide && !wide_) continue;
    line += padded(decimal(record, column.member, column.digits, ""), column.width + 1);
  }
  lines.push_back(line);
  return lines;
}

std::optional<std::string> Position_table::silence(Time now) {
  const std::lock_guard lock(mutex_);
  if (!last_) last_ = now;
  const std::chrono::duration<double> quiet = now - *last_;
  const double usual = rate() == 0 ? 0 : 3 / rate();
  if (quiet.count() < std::max({2.0, usual, 2 * reported_.count()})) return std::nullopt;
  reported_ = quiet;
  return local_time() + " nothing for " + text_of(quiet);
}

double Position_table::rate() const {
  const std::size_t known = std::min(count_, arrivals_.size());
  if (known < 2) return 0;
  const auto newest = arrivals_[(count_ - 1) % arrivals_.size()];
  const auto oldest = arrivals_[count_ <= arrivals_.size() ? 0 : count_ % arrivals_.size()];
  const std::chrono::duration<double> span = newest - oldest;
  return span.count() > 0 ? static_cast<double>(known - 1) / span.count() : 0;
}

}  // namespace posctl
