/// Reads a JSON document that a person wrote. The caller asks for every value by name; every other
/// value is an error. Errors name the place and the expected content.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tq::com {

class Json_reader {
 public:
  using Json = nlohmann::ordered_json;

  Json_reader(const Json& value, std::string path, const std::string& file)
      : value_(&value), path_(std::move(path)), file_(&file) {}

  [[noreturn]] void fail(const std::string& expected) const {
    std::string found = value_->dump();
    if (found.size() > 60) found = found.substr(0, 57) + "...";
    throw std::runtime_error(*file_ + ": " + (path_.empty() ? "the document" : path_) +
                             ": expected " + expected + ", found " + found);
  }
  [[nodiscard]] const std::string& path() const { return path_; }

  /// The members of an object; unknown ones are refused by done().
  class Members {
   public:
    explicit Members(const Json_reader& object) : object_(object) {
      if (!object.value_->is_object()) object.fail("an object");
    }
    [[nodiscard]] std::optional<Json_reader> find(const std::string& name) {
      known_.insert(name);
      const auto found = object_.value_->find(name);
      if (found == object_.value_->end()) return std::nullopt;
      return Json_reader(*found, object_.path_ + (object_.path_.empty() ? "" : ".") + name,
                         *object_.file_);
    }
    [[nodiscard]] Json_reader at(const std::string& name) {
      auto found = find(name);
      if (!found) object_.fail("a member \"" + name + "\"");
      return *found;
    }
    /// Throws for a member that the caller has not asked for.
    void done() const {
      for (const auto& [name, value] : object_.value_->items()) {
        if (known_.contains(name)) continue;
        std::string names;
        for (const auto& one : known_)
          names += (names.empty() ? "" : ", ") + one;
        // NOLINTNEXTLINE(performance-inefficient-string-concatenation): ends the loop
        object_.fail("no member \"" + name + "\" (known are " + names + ")");
      }
    }

   private:
    const Json_reader& object_;
    std::set<std::string> known_;
  };

  [[nodiscard]] std::vector<Json_reader> elements() const {
    if (!value_->is_array()) fail("an array");
    std::vector<Json_reader> result;
    for (std::size_t i = 0; i < value_->size(); ++i) {
      result.emplace_back((*value_)[i], path_ + "[" + std::to_string(i) + "]", *file_);
    }
    return result;
  }
  [[nodiscard]] std::vector<std::pair<std::string, Json_reader>> named() const {
    if (!value_->is_object()) fail("an object");
    std::vector<std::pair<std::string, Json_reader>> result;
    for (const auto& [name, value] : value_->items()) {
      result.emplace_back(name,
                          Json_reader(value, path_ + (path_.empty() ? "" : ".") + name, *file_));
    }
    return result;
  }

  [[nodiscard]] std::string text() const {
    if (!value_->is_string() || value_->get_ref<const std::string&>().empty()) fail("a text");
    return value_->get<std::string>();
  }
  [[nodiscard]] bool boolean() const {
    if (!value_->is_boolean()) fail("true or false");
    return value_->get<bool>();
  }
  /// A number, or a text such as "0x1234".
  [[nodiscard]] std::uint64_t number(std::uint64_t low, std::uint64_t high) const {
    std::optional<std::uint64_t> number;
    if (value_->is_number_unsigned()) {
      number = value_->get<std::uint64_t>();
    } else if (value_->is_string()) {
      const auto& digits = value_->get_ref<const std::string&>();
      const bool hexadecimal =
          digits.size() > 2 && digits.size() <= 10 && digits[0] == '0' && digits[1] == 'x' &&
          digits.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string::npos;
      if (hexadecimal) number = std::stoull(digits, nullptr, 16);
    }
    if (!number || *number < low || *number > high) {
      fail("a number from " + std::to_string(low) + " to " + std::to_string(high) +
           ", or the same as a text like \"0x1234\"");
    }
    return *number;
  }
  template <class Unsigned>
  [[nodiscard]] Unsigned number(std::uint64_t low, std::uint64_t high) const {
    return static_cast<Unsigned>(number(low, high));
  }
  [[nodiscard]] bool is_text() const { return value_->is_string(); }

 private:
  const Json* value_;
  std::string path_;
  const std::string* file_;
};

}  // namespace tq::com
