#include <string>

#include "platform/linux/com/manifest.h"
#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/record_json.h"

namespace posctl {
int validate(const Validate_options& options) {
  const auto text = tq::com::read_manifest(options.manifest);
  if (!text) throw tools::Usage_error("cannot read \"" + options.manifest + "\"");
  Json json{{"schema", 1}, {"manifest", options.manifest}, {"valid", true}};
  try {
    const auto deployment = tq::com::parse_deployment(*text, options.manifest);
    json["nodes"] = deployment.nodes.size();
    json["services"] = deployment.services.size();
  } catch (const std::exception& error) {
    json["valid"] = false;
    json["error"] = error.what();
  }
  const bool valid = json["valid"].get<bool>();
  std::string line = options.manifest + " is valid: ";
  if (valid) line += json["nodes"].dump() + " nodes, " + json["services"].dump() + " services";
  tools::write_output((options.json ? json.dump(-1, ' ', false, Json::error_handler_t::replace)
                       : valid      ? line
                                    : "not valid: " + json["error"].get<std::string>()) +
                      "\n");
  return valid ? 0 : tools::exit_failed;
}

}  // namespace posctl
