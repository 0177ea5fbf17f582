#include "tools/posctl/page.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace posctl {
namespace {

constexpr std::size_t name_width = 25;
constexpr std::size_t cell_width = 40;

}  // namespace

void Page::section(std::string_view title) {
  flush();
  if (!text_.empty()) text_ += '\n';
  text_.append(title).append("\n");
}

void Page::item(std::string_view name, std::string_view value) {
  std::string cell = "  " + std::string(name);
  cell.resize(std::max(cell.size() + 1, name_width + 2), ' ');
  cell += value;
  if (row_.size() >= cell_width) flush();
  const bool second = !row_.empty();
  if (second) row_.resize(cell_width, ' ');
  row_ += cell;
  if (second) flush();
}

void Page::line(std::string_view text) {
  flush();
  text_.append("  ").append(text).append("\n");
}

std::string Page::take() {
  flush();
  return std::exchange(text_, {});
}

void Page::flush() {
  if (!row_.empty()) text_.append(row_).append("\n");
  row_.clear();
}

std::string decimal(const Json& object,
                    const std::string& name,
                    int digits,
                    std::string_view unit) {
  const auto found = object.find(name);
  if (found != object.end() && found->is_string()) return found->get<std::string>();
  if (found == object.end() || !found->is_number()) return "-";
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%.*f", digits, found->get<double>());
  return std::string(text.data()) + (unit.empty() ? "" : " ") + std::string(unit);
}

}  // namespace posctl
