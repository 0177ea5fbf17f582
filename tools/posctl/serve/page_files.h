/// The files of the page, which the build puts into the program.
#pragma once

#include <span>
#include <string_view>

namespace posctl::serve {

struct Page_file {
  std::string_view name;  ///< below the address of the page
  std::string_view type;
  std::string_view tag;     ///< changes with the content
  std::string_view plain;   ///< the content
  std::string_view packed;  ///< the same by gzip; empty where that is not smaller
};

[[nodiscard]] std::span<const Page_file> page_files();

}  // namespace posctl::serve
