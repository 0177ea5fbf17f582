#include "tools/posctl/serve/action.h"

#include "tools/command.h"
#include "tools/posctl/record_json.h"

namespace posctl::serve {
namespace {

std::string text_member(const Json& json, const char* name) {
  const auto found = json.find(name);
  if (found == json.end() || !found->is_string())
    throw tools::Usage_error("an action needs the text \"" + std::string(name) + "\"");
  return found->get<std::string>();
}

}  // namespace

Action action_of(std::string_view text) {
  const Json json = Json::parse(text, nullptr, false);
  if (!json.is_object()) throw tools::Usage_error("an action is a JSON object");
  Action action;
  const auto id = json.find("id");
  if (id == json.end() || !id->is_number_integer())
    throw tools::Usage_error("an action needs the whole number \"id\"");
  action.id = id->get<std::int64_t>();
  const std::string kind = text_member(json, "action");
  if (kind == "initMonitor") {
    action.kind = Action::Kind::init_monitor;
    action.name = text_member(json, "monitor");
    action.reason = text_member(json, "reason");
  } else if (kind == "componentState") {
    action.kind = Action::Kind::component_state;
    action.name = text_member(json, "state");
  } else if (kind == "makeFault") {
    action.kind = Action::Kind::make_fault;
    action.name = text_member(json, "fault");
  } else if (kind == "endFaults") {
    action.kind = Action::Kind::end_faults;
    action.name = text_member(json, "fault");
  } else {
    throw tools::Usage_error("there is no such action");
  }
  return action;
}

}  // namespace posctl::serve
