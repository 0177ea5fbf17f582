// The deployment manifest: a text that a person wrote either is refused with a reason or holds what
// the runtime relies on.
#include <algorithm>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>

#include "fuzz/input.h"
#include "platform/linux/com/manifest.h"

namespace {

using fuzz::require;

void check(const someip::Deployment& deployment) {
  require(deployment.discovery.port != 0 && deployment.discovery.multicast_address.is_multicast(),
          "service discovery has a group");
  require(deployment.discovery.initial_delay_min <= deployment.discovery.initial_delay_max &&
              deployment.discovery.request_response_delay_min <=
                  deployment.discovery.request_response_delay_max,
          "delays are ranges");
  const auto& timing = deployment.discovery;
  for (const std::uint32_t ttl : {timing.offer_ttl, timing.subscribe_ttl}) {
    require(ttl == 0xFFFFFF || std::chrono::seconds(ttl) > timing.cyclic_offer_delay,
            "what is offered is renewed in time");
  }
  std::set<boost::asio::ip::address> addresses;
  std::set<std::uint16_t> client_ids;
  for (const auto& node : deployment.nodes) {
    require(!node.addresses.empty() && node.workers > 0, "a node has an address and workers");
    require(client_ids.insert(node.client_id).second, "a node's client id is its own");
    for (const auto& address : node.addresses) {
      require(
          !address.is_multicast() && !address.is_unspecified() && addresses.insert(address).second,
          "a node's address is its own");
      require(address.is_v4() == timing.multicast_address.is_v4(), "a node reaches the group");
    }
  }
  for (const auto& service : deployment.services) {
    require(service.id != 0 && service.id < 0xFFFE, "a service has an id");
    for (const auto& instance : service.instances) {
      require(instance.udp_port || instance.tcp_port, "an instance has a port");
      require(std::ranges::any_of(deployment.nodes,
                                  [&](const auto& node) { return node.name == instance.node; }),
              "an instance has a node");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  someip::Deployment deployment;
  try {
    deployment = tq::com::parse_deployment(text, "manifest.json");
  } catch (const std::runtime_error& error) {
    require(std::string_view(error.what()).starts_with("manifest.json: "),
            "an error names the file");
    return 0;
  }
  check(deployment);
  return 0;
}
