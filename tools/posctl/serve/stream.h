/// The notifications of one field on their way to the page: joined when more come than a browser
/// needs, and kept as curves.
#pragma once

#include <array>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

#include "tools/posctl/notification_json.h"
#include "tools/posctl/serve/series.h"

namespace posctl::serve {

template <class Record>
concept Typed_record = requires(Record record) {
  record.positionType;
};

/// A curve of records, and one that the notification adds: the age on arrival.
inline constexpr std::string_view age_curve = "ageMs";

template <class Record>
class Stream {
 public:
  using Time = std::chrono::steady_clock::time_point;
  /// Of the records' positionType; none: absent.
  using Type = std::optional<std::uint32_t>;

  Stream(std::string_view field, Time::duration interval, std::span<const Curve> curves = {})
      : field_(field), interval_(interval), curves_(curves) {}

  /// `received` in seconds since 1970.
  void add(const std::vector<Record>& records, double received) {
    ++count_;
    received_ = received;
    age_ = records.empty() ? std::nullopt : age_s(records.back());
    last_ = records;
    if constexpr (Typed_record<Record>) {
      for (const Record& record : records)
        add_typed(record, received);
    }
  }
  /// The notification that is due, if one is.
  [[nodiscard]] std::optional<Json> take_due(Time now) {
    if (count_ == 0 || (sent_ && now - *sent_ < interval_)) return std::nullopt;
    sent_ = now;
    Json json = count_ > 1 ? joined() : notification_json(field_, last_, received_, age_);
    count_ = 0;
    for (auto& part : parts_)
      part.count = 0;
    return json;
  }
  /// The last records, of each position type, for a client that comes; nothing if none has come.
  [[nodiscard]] std::optional<Json> last() const {
    if (received_ == 0) return std::nullopt;
    if constexpr (Typed_record<Record>) {
      std::vector<Record> records;
      for (const auto& part : parts_)
        records.push_back(part.last);
      return notification_json(field_, records, received_, age_);
    } else {
      return notification_json(field_, last_, received_, age_);
    }
  }
  [[nodiscard]] const std::map<Type, Series>& series() const { return series_; }

 private:
  struct Range {
    double least = no_value, greatest = no_value;
  };
  struct Part {
    Type type;
    Record last;
    std::uint64_t count = 0;  ///< since the last frame
    double from = 0;
    std::array<Range, binding::member_count<Record>> ranges{};
  };
  /// A source does not decide how many are kept.
  static constexpr std::size_t max_types = 4;

  /// Calls visit(place, name, value) for each number of the record.
  template <class Visit>
  static void for_each_number(const Record& record, Visit&& visit) {
    std::size_t place = 0;
    binding::for_each_member<Record>([&]<class M>(const M& member) {
      using Value = typename M::value_type;
      if constexpr (std::is_arithmetic_v<Value> && !std::is_same_v<Value, bool>) {
        const auto& value = record.*member.pointer;
        visit(place, member.name, value ? static_cast<double>(*value) : no_value);
      } else if constexpr (std::is_enum_v<Value> && !std::is_same_v<Value, binding::Value_type>) {
        const auto& value = record.*member.pointer;
        visit(place, member.name, value ? static_cast<double>(*value) : no_value);
      }
      ++place;
    });
  }

  void add_typed(const Record& record, double received) {
    const Type type =
        record.positionType ? Type(static_cast<std::uint32_t>(*record.positionType)) : std::nullopt;
    auto part = std::ranges::find(parts_, type, &Part::type);
    if (part == parts_.end()) {
      if (parts_.size() == max_types) return;
      part = parts_.insert(part, Part{.type = type, .last = {}});
    }
    part->last = record;
    if (part->count++ == 0) {
      part->ranges = {};
      part->from = received;
    }
    for_each_number(record, [&](std::size_t place, std::string_view, double value) {
      Range& range = part->ranges.at(place);
      range.least = std::fmin(range.least, value);
      range.greatest = std::fmax(range.greatest, value);
    });
    if (!curves_.empty()) add_to_series(type, record, received);
  }
  void add_to_series(const Type& type, const Record& record, double received) {
    std::array<double, 16> values{};
    values.fill(no_value);
    bool any = false;
    for_each_number(record, [&](std::size_t, std::string_view name, double value) {
      for (std::size_t i = 0; i < curves_.size(); ++i) {
        if (curves_[i].name != name) continue;
        values.at(i) = value;
        any = any || !std::isnan(value);
      }
    });
    if (!any) return;  // such as the initial value
    if (age_ && curves_.back().name == age_curve) values.at(curves_.size() - 1) = *age_ * 1000;
    series_.try_emplace(type, curves_)
        .first->second.add(received * 1000, std::span(values).first(curves_.size()));
  }

  /// The notifications since the last frame as one.
  [[nodiscard]] Json joined() const {
    if constexpr (Typed_record<Record>) {
      std::vector<Record> records;
      Json merged = Json::array();
      for (const auto& part : parts_) {
        if (part.count == 0) continue;
        records.push_back(part.last);
        merged.push_back(merged_json(part));
      }
      Json json = notification_json(field_, records, received_, age_);
      json["merged"] = std::move(merged);
      return json;
    } else {
      return notification_json(field_, last_, received_, age_);
    }
  }
  [[nodiscard]] static Json merged_json(const Part& part) {
    Json json{{"count", part.count}, {"from", part.from}};
    Json& least = json["min"] = Json::object();
    Json& greatest = json["max"] = Json::object();
    for_each_number(part.last, [&](std::size_t place, std::string_view name, double) {
      const Range& range = part.ranges.at(place);
      if (std::isnan(range.least)) return;
      least[std::string(name)] = range.least;
      greatest[std::string(name)] = range.greatest;
    });
    return json;
  }

  const std::string_view field_;
  const Time::duration interval_;
  const std::span<const Curve> curves_;
  std::uint64_t count_ = 0;  ///< notifications since the last frame
  double received_ = 0;      ///< 0: none has come
  std::optional<double> age_;
  std::vector<Record> last_;
  std::vector<Part> parts_;  ///< of records with a positionType
  std::optional<Time> sent_;
  std::map<Type, Series> series_;
};

}  // namespace posctl::serve
