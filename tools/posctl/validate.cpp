#include <fstream>
#include <iterator>
#include <string>

#include "platform/linux/com/manifest.h"
#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/record_json.h"

namespace posctl {
namespace {

/// No manifest is as large as this.
constexpr std::size_t most_bytes = std::size_t{16} << 20;

std::string text_of_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text;
  for (std::istreambuf_iterator<char> byte(file), end; byte != end && text.size() <= most_bytes;
       ++byte) {
    text += *byte;
  }
  if (!file.is_open() || file.bad()) throw tools::Usage_error("cannot read \"" + path + "\"");
  if (text.size() > most_bytes) throw std::runtime_error(path + ": larger than 16 MiB");
  return text;
}

}  // namespace

int validate(const Validate_options& options) {
  const std::string text = text_of_file(options.manifest);
  Json json{{"schema", 1}, {"manifest", options.manifest}, {"valid", true}};
  try {
    const auto deployment = tq::com::parse_deployment(text, options.manifest);
    json["nodes"] = deployment.nodes.size();
    json["services"] = deployment.services.size();
  } catch (const std::exception& error) {
    json["valid"] = false;
    json["error"] = error.what();
  }
  const bool valid = json["valid"].get<bool>();
  std::string line = options.manifest + " is valid: ";
  if (valid) line += json["nodes"].dump() + " nodes, " + json["services"].dump() + " services";
  tools::write_output((options.json ? json.dump()
                       : valid      ? line
                                    : "not valid: " + json["error"].get<std::string>()) +
                      "\n");
  return valid ? 0 : tools::exit_failed;
}

}  // namespace posctl
