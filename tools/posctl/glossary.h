/// The meaning of every name that posctl prints: posctl explain, and the tables of docs/status.md.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace posctl {

struct Term {
  std::string kind;  ///< "counter", "status" …
  std::string name;
  std::string meaning;
};

/// In the order of the kinds, each in the order in which posctl prints them.
[[nodiscard]] std::vector<Term> glossary();

}  // namespace posctl
