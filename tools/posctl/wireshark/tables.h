/// The files of a Wireshark profile.
#pragma once

#include <concepts>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>

namespace posctl::wireshark {

/// The tables of a Wireshark profile as text, by file name.
class Tables {
 public:
  struct Cell {
    Cell(std::string_view value) : text(value) {}
    Cell(const char* value) : text(value) {}
    Cell(const std::string& value) : text(value) {}
    Cell(bool value) : text(value ? "TRUE" : "FALSE") {}
    template <std::unsigned_integral Number>
    Cell(Number value) : text(std::to_string(value)) {}

    std::string text;
  };
  /// "1f": the form of the ids in the tables, without prefix and leading zeros.
  static std::string bare_hexadecimal(std::uint64_t id);

  /// Adds a row to the user table "SOMEIP_<table>".
  void add(const std::string& table, std::initializer_list<Cell> cells);
  void add_line(const std::string& file, const std::string& line);

  /// Throws std::system_error.
  void write(const std::filesystem::path& folder) const;

 private:
  std::map<std::string, std::string> files_;
};

}  // namespace posctl::wireshark
