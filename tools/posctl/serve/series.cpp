#include "tools/posctl/serve/series.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace posctl::serve {
namespace {

void append_number(std::string& json, double value, int digits) {
  if (!std::isfinite(value)) {
    json += "null";
    return;
  }
  const double scale = std::pow(10.0, digits);
  const double rounded = std::round(value * scale) / scale;
  std::array<char, 32> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), rounded).ptr;
  json.append(text.data(), end);
}

template <class Rows, class Value>
void append_array(std::string& json, const Rows& rows, std::size_t count, int digits, Value value) {
  json += '[';
  for (std::size_t i = 0; i < count; ++i) {
    if (i != 0) json += ',';
    append_number(json, value(rows[i]), digits);
  }
  json += ']';
}

}  // namespace

void Series::add(double time, std::span<const double> values) {
  for (Tier& tier : tiers_) {
    if (tier.rows.empty() || time - tier.rows.back().begin >= tier.bucket ||
        time < tier.rows.back().begin) {
      if (tier.rows.size() == tier.most) tier.rows.pop_front();
      const std::vector<double> all(values.begin(), values.end());
      tier.rows.push_back({time, time, 1, all, all, all});
      continue;
    }
    Row& row = tier.rows.back();
    row.end = time;
    ++row.count;
    for (std::size_t i = 0; i < values.size(); ++i) {
      row.last[i] = values[i];
      row.least[i] = std::fmin(row.least[i], values[i]);
      row.greatest[i] = std::fmax(row.greatest[i], values[i]);
    }
  }
}

void Series::write_tiers(std::string& json) const {
  json += '[';
  for (std::size_t i = 0; i < tiers_.size(); ++i) {
    const bool finest = i + 1 == tiers_.size();
    const double before = finest || tiers_[i + 1].rows.empty()
                              ? std::numeric_limits<double>::infinity()
                              : tiers_[i + 1].rows.front().begin;
    if (i != 0) json += ',';
    write(json, tiers_[i], before);
  }
  json += ']';
}

void Series::write(std::string& json, const Tier& tier, double before) const {
  const auto& rows = tier.rows;
  const auto count = static_cast<std::size_t>(std::ranges::distance(
      rows.begin(), std::ranges::find_if(rows, [&](const Row& row) { return row.end >= before; })));
  const bool joined = std::any_of(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(count),
                                  [](const Row& row) { return row.count > 1; });
  json += "{\"bucketMs\":";
  append_number(json, tier.bucket, 0);
  json += ",\"t\":";
  append_array(json, rows, count, 1, [](const Row& row) { return row.end; });
  json += ",\"n\":";
  append_array(json, rows, count, 0, [](const Row& row) { return static_cast<double>(row.count); });
  const auto append_all = [&](const char* name, std::vector<double> Row::*values) {
    json += ",\"";
    json += name;
    json += "\":{";
    for (std::size_t i = 0; i < curves_.size(); ++i) {
      if (i != 0) json += ',';
      json += '"';
      json += curves_[i].name;
      json += "\":";
      append_array(json, rows, count, curves_[i].digits,
                   [&](const Row& row) { return (row.*values)[i]; });
    }
    json += '}';
  };
  append_all("last", &Row::last);
  if (joined) {
    append_all("min", &Row::least);
    append_all("max", &Row::greatest);
  }
  json += '}';
}

}  // namespace posctl::serve
