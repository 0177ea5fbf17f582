/// A page of text: sections with names and values in two columns of a terminal's 80.
#pragma once

#include <string>
#include <string_view>

#include "tools/posctl/record_json.h"

namespace posctl {

class Page {
 public:
  void section(std::string_view title);
  /// The next cell of the section.
  void item(std::string_view name, std::string_view value);
  /// A line of its own.
  void line(std::string_view text);

  /// Takes the page as it is now; the next one is empty.
  [[nodiscard]] std::string take();

 private:
  void flush();

  std::string text_;
  std::string row_;  ///< the cell that has no neighbour yet
};

/// A member as text, such as "12.34 m"; "-" if it is null or missing.
[[nodiscard]] std::string decimal(const Json& object,
                                  const std::string& name,
                                  int digits,
                                  std::string_view unit);

}  // namespace posctl
