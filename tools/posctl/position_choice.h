/// The choices of an option --position: the application's output, or a type of its source's.
#pragma once

#include <string>
#include <vector>

namespace posctl {

inline constexpr const char* output_position = "output";
[[nodiscard]] std::vector<std::string> position_choices();

}  // namespace posctl
