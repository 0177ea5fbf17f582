/// The name under which an integrator configures a service instance, a storage port or a supervised
/// application.
#pragma once

#include <algorithm>
#include <compare>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace ara::core {

/// A checked string of one or more short names joined by '/'. A short name starts with a letter,
/// followed by letters, digits and underscores. The whole has at most 255 characters.
class InstanceSpecifier {
 public:
  /// Throws std::invalid_argument, which quotes the text and names the mistake.
  explicit InstanceSpecifier(std::string_view text) : text_(text) { Check(text); }

  [[nodiscard]] const std::string& ToString() const { return text_; }

  friend bool operator==(const InstanceSpecifier&, const InstanceSpecifier&) = default;
  friend auto operator<=>(const InstanceSpecifier&, const InstanceSpecifier&) = default;

 private:
  static void Check(std::string_view text) {
    constexpr std::size_t max_length = 255;
    const auto letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    const auto rest = [&](char c) { return letter(c) || (c >= '0' && c <= '9') || c == '_'; };
    const auto fail = [&](const char* reason) {
      throw std::invalid_argument("instance specifier \"" +
                                  std::string(text.substr(0, max_length)) + "\": " + reason);
    };
    if (text.empty()) fail("is empty");
    if (text.size() > max_length) fail("has more than 255 characters");
    for (std::size_t begin = 0; begin <= text.size();) {
      const std::size_t end = std::min(text.find('/', begin), text.size());
      const std::string_view name = text.substr(begin, end - begin);
      if (name.empty()) fail("has an empty name before, between or after its slashes");
      if (!letter(name.front())) fail("each name must start with a letter");
      if (!std::all_of(name.begin(), name.end(), rest)) {
        fail("only letters, digits and underscores are allowed in a name");
      }
      begin = end + 1;
    }
  }

  std::string text_;
};

}  // namespace ara::core
