#include <filesystem>
#include <fstream>

#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/shell_files.h"

namespace posctl {

int describe(const Describe_options& options) {
  if (!options.completion.empty()) {
    tools::write_output(completion(options.completion));
    return 0;
  }
  if (!options.wireshark.empty())
    return describe_for_wireshark(options.wireshark, options.interfaces);
  if (options.man.empty()) return describe_deployment(options.json);
  std::filesystem::create_directories(options.man);
  for (const auto& [name, text] : manual_pages()) {
    const auto path = std::filesystem::path(options.man) / name;
    std::ofstream file(path, std::ios::binary);
    file << text;
    if (!file.flush()) throw std::runtime_error("cannot write \"" + path.string() + "\"");
  }
  return 0;
}

}  // namespace posctl
