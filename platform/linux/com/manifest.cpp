#include "platform/linux/com/manifest.h"

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace tq::com {

namespace {

std::string read_file(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (!file) throw std::runtime_error(path.string() + ": the deployment manifest cannot be read");
  return text;
}

someip::Deployment read() {
  if (const char* named = std::getenv("POS_MANIFEST"); named != nullptr && *named != '\0') {
    return parse_deployment(read_file(named), named);
  }
  std::error_code error;
  const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
  const auto installed = executable.parent_path().parent_path() / "share" / "pos" / "manifest.json";
  if (!error && std::filesystem::is_regular_file(installed, error)) {
    return parse_deployment(read_file(installed), installed.string());
  }
  return parse_deployment(built_in_manifest(), "built-in manifest");
}

}  // namespace

someip::Deployment load_deployment(std::string_view node_in_use) {
  auto deployment = read();
  const char* replaced = std::getenv("POS_NODE_ADDRESS");
  if (replaced == nullptr || *replaced == '\0') return deployment;
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(replaced, error);
  if (error || address.is_unspecified() || address.is_multicast()) {
    throw std::runtime_error(
        std::string("POS_NODE_ADDRESS: expected a unicast IP address, found \"") + replaced + "\"");
  }
  for (auto& node : deployment.nodes) {
    if (node.name == node_in_use) node.addresses = {address};
  }
  return deployment;
}

}  // namespace tq::com
