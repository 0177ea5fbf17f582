#include "platform/linux/com/manifest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/asio/ip/address.hpp>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include "platform/linux/core/application.h"
#include "platform/someip/base/endpoint.h"

namespace tq::com {

namespace {

constexpr std::string_view manifest_variable = "MANIFEST";
constexpr std::string_view address_variable = "NODE_ADDRESS";
constexpr std::size_t most_bytes_of_a_manifest = std::size_t{1} << 20U;

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
  throw std::runtime_error(path + ": the deployment manifest cannot be read: " + why);
}
[[noreturn]] void refuse(const std::string& path, int error) {
  refuse(path, std::generic_category().message(error));
}

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  [[nodiscard]] int number() const { return number_; }

 private:
  const int number_;
};

const char* kind_of(mode_t mode) {
  if (S_ISDIR(mode)) return "a folder";
  if (S_ISFIFO(mode)) return "a pipe";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
  return "another kind of file";
}

someip::Deployment read() {
  const auto& application = ara::core::application();
  if (const std::string named = ara::core::variable(manifest_variable); !named.empty()) {
    const auto text = read_manifest(named);
    if (!text) refuse(named, ENOENT);
    return parse_deployment(*text, named);
  }
  const auto configured = std::filesystem::path("/etc") / application.name / "manifest.json";
  if (const auto text = read_manifest(configured)) return parse_deployment(*text, configured);
  std::error_code error;
  const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
  std::filesystem::path installed;
  if (!error) {
    installed =
        executable.parent_path().parent_path() / "share" / application.name / "manifest.json";
    if (const auto text = read_manifest(installed)) return parse_deployment(*text, installed);
  }
  if (!application.manifest.empty())
    return parse_deployment(application.manifest, "built-in manifest");
  throw std::runtime_error("no deployment manifest: the environment variable " +
                           ara::core::variable_name(manifest_variable) +
                           " names none, and there is neither \"" + configured.string() +
                           "\" nor \"" + installed.string() + "\"");
}

/// Gives a node the address that the environment names, if a manifest could name it too.
void replace_address(const someip::Deployment& deployment,
                     someip::Node_deployment& node,
                     const std::string& text) {
  const auto require = [&](bool condition, const std::string& expected) {
    if (condition) return;
    throw std::runtime_error(ara::core::variable_name(address_variable) + ": expected " + expected +
                             ", found \"" + text + "\"");
  };
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(text, error);
  require(!error && someip::reachable_peer(address, address, node.prefix_length),
          "a unicast IP address");
  const auto& group = deployment.discovery.multicast_address;
  require(address.is_v4() == group.is_v4(),
          "an address of the family of " + group.to_string() + ", the group of service discovery");
  for (const auto& other : deployment.nodes) {
    require(&other == &node || std::ranges::find(other.addresses, address) == other.addresses.end(),
            "an address that nodes." + other.name + " of the manifest does not have");
  }
  node.addresses = {address};
}

}  // namespace

std::optional<std::string> read_manifest(const std::string& path) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (file.number() < 0 && (errno == ENOENT || errno == ENOTDIR)) return std::nullopt;
  if (file.number() < 0) refuse(path, errno);
  struct stat status {};
  if (::fstat(file.number(), &status) != 0) refuse(path, errno);
  if (!S_ISREG(status.st_mode)) {
    refuse(path, std::string("expected a regular file, found ") + kind_of(status.st_mode));
  }
  std::string text;
  std::array<char, 16384> block;
  for (;;) {
    const ssize_t count = ::read(file.number(), block.data(), block.size());
    if (count == 0) return text;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) refuse(path, errno);
    text.append(block.data(), static_cast<std::size_t>(count));
    if (text.size() > most_bytes_of_a_manifest) {
      refuse(path,
             "expected at most " + std::to_string(most_bytes_of_a_manifest) + " bytes, found more");
    }
  }
}

someip::Deployment load_deployment(std::string_view node_in_use) {
  auto deployment = read();
  const std::string replaced = ara::core::variable(address_variable);
  if (replaced.empty()) return deployment;
  const auto node =
      std::ranges::find(deployment.nodes, node_in_use, &someip::Node_deployment::name);
  if (node != deployment.nodes.end()) replace_address(deployment, *node, replaced);
  return deployment;
}

}  // namespace tq::com
