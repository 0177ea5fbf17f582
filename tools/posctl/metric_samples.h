/// Samples in the text format of Prometheus.
#pragma once

#include <array>
#include <charconv>
#include <cmath>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace posctl {

/// The samples of one metric.
class Samples {
 public:
  using Labels = std::initializer_list<std::pair<std::string_view, std::string_view>>;

  explicit Samples(std::string_view metric) : metric_(metric) {}

  /// `suffix` is that of a summary's sum and count.
  template <class Number>
  void add(Number value, Labels labels = {}, std::string_view suffix = {}) {
    text_.append(metric_).append(suffix);
    char separator = '{';
    for (const auto& [name, text] : labels) {
      text_ += std::exchange(separator, ',');
      text_.append(name).append("=\"");
      append_escaped(text);
      text_ += '"';
    }
    if (separator == ',') text_ += '}';
    text_ += ' ';
    append(value);
    text_ += '\n';
  }

  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  void append_escaped(std::string_view text) {
    for (const char one : text) {
      if (one == '\n') {
        text_ += "\\n";
        continue;
      }
      if (one == '\\' || one == '"') text_ += '\\';
      text_ += one;
    }
  }
  template <class Number>
  void append(Number value) {
    if constexpr (std::is_same_v<Number, bool>) {
      text_ += value ? '1' : '0';
    } else {
      if constexpr (std::is_floating_point_v<Number>) {
        if (std::isnan(value)) {
          text_ += "NaN";
          return;
        }
        if (std::isinf(value)) {
          text_ += value < 0 ? "-Inf" : "+Inf";
          return;
        }
      }
      std::array<char, 32> text{};
      text_.append(text.data(), std::to_chars(text.data(), text.data() + text.size(), value).ptr);
    }
  }

  const std::string_view metric_;
  std::string text_;
};

}  // namespace posctl
