#include "tools/posctl/position_choice.h"

#include "binding/position_type.h"

namespace posctl {

std::vector<std::string> position_choices() {
  std::vector<std::string> choices{output_position};
  for (const auto& type : binding::enumerators<lumo::services::Position_type>)
    choices.emplace_back(type.name);
  return choices;
}

}  // namespace posctl
