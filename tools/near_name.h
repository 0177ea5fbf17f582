/// A guess at the name that a mistyped one stands for.
#pragma once

#include <algorithm>
#include <numeric>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

/// The number of letters to insert, remove or replace; two that changed places count once.
[[nodiscard]] inline std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> before(b.size() + 1);
  std::vector<std::size_t> row(b.size() + 1);
  std::vector<std::size_t> next(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    next[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      next[j] =
          std::min({row[j] + 1, next[j - 1] + 1, row[j - 1] + (a[i - 1] == b[j - 1] ? 0U : 1U)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        next[j] = std::min(next[j], before[j - 2] + 1);
      }
    }
    before = row;
    row = next;
  }
  return row.back();
}

/// "; did you mean "status"?" for a name near to one of `names`, else nothing.
template <class Names>
[[nodiscard]] std::string did_you_mean(std::string_view name, const Names& names) {
  std::string_view nearest;
  std::size_t least = name.size() / 3 + 2;  // a further name is no guess
  if (name.size() > 64) return {};          // no name of ours, and slow to compare
  for (const auto& known : names) {
    const auto away = distance(name, known);
    if (away < least) {
      least = away;
      nearest = known;
    }
  }
  return nearest.empty() ? std::string() : "; did you mean \"" + std::string(nearest) + "\"?";
}

}  // namespace tools
