#include "tools/posctl/wireshark/tables.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <system_error>

namespace posctl::wireshark {

std::string Tables::bare_hexadecimal(std::uint64_t id) {
  std::array<char, 20> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), id, 16).ptr;
  return {text.data(), end};
}

void Tables::add(const std::string& table, std::initializer_list<Cell> cells) {
  std::string& text = files_["SOMEIP_" + table];
  const char* separator = "";
  for (const Cell& cell : cells) {
    text.append(separator).append("\"").append(cell.text).append("\"");
    separator = ",";
  }
  text += "\n";
}

void Tables::add_line(const std::string& file, const std::string& line) {
  files_[file].append(line).append("\n");
}

void Tables::write(const std::filesystem::path& folder) const {
  std::filesystem::create_directories(folder);
  for (const auto& [name, text] : files_) {
    errno = 0;
    std::ofstream file(folder / name, std::ios::trunc);
    if (file << text << std::flush) continue;
    throw std::system_error(errno, std::generic_category(),
                            "cannot write " + (folder / name).string());
  }
}

}  // namespace posctl::wireshark
