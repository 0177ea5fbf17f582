#include "tools/posctl/way.h"

#include <unistd.h>

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <cstdlib>
#include <memory>
#include <utility>

#include "app/application_instance.h"
#include "platform/linux/com/make_runtime.h"
#include "platform/linux/com/manifest.h"
#include "platform/linux/com/socket_paths.h"
#include "platform/someip/base/endpoint.h"
#include "platform/someip/net/local_path.h"
#include "platform/someip/net/udp_socket.h"
#include "tools/command.h"

namespace posctl {

namespace {

constexpr const char* usual_node = "posctl";

/// Does a process listen there that takes our connection?
std::error_code listens(const std::string& path) {
  std::error_code error;
  const int descriptor = someip::connect_local(path, error);
  if (descriptor >= 0) ::close(descriptor);
  return error;
}

bool is_missing(const std::error_code& error) {
  return error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory;
}

bool environment_names_an_address() {
  const char* const address = std::getenv("POS_NODE_ADDRESS");
  return address != nullptr && *address != '\0';
}

someip::Address address_of(const std::string& text) {
  boost::system::error_code error;
  auto address = boost::asio::ip::make_address(text, error);
  if (error) {
    throw tools::Usage_error(
        "--connect: expected the path of a socket, with a /, or an IP address, "
        "found \"" +
        text + "\"");
  }
  return address;
}

Possible_way network_as(const std::string& node) {
  return {{}, node, std::nullopt, "over the network as node " + node};
}

std::unique_ptr<tq::com::Runtime> through(const std::string& path) {
  return tq::com::make_local_runtime(tq::com::load_deployment(), usual_node, path);
}

bool has_address(const std::string& node) {
  const auto deployment = tq::com::load_deployment(node);
  const auto found = std::ranges::find(deployment.nodes, node, &someip::Node_deployment::name);
  // A missing node is for the runtime to refuse.
  return found == deployment.nodes.end() || own_address(found->addresses);
}

std::unique_ptr<tq::com::Runtime> as_node(const std::string& node,
                                          const std::optional<someip::Address>& only) {
  auto deployment = tq::com::load_deployment(node);
  const auto found = std::ranges::find(deployment.nodes, node, &someip::Node_deployment::name);
  if (found != deployment.nodes.end()) found->only_peer = only;
  return tq::com::make_runtime(std::move(deployment), node);
}

}  // namespace

std::optional<someip::Address> own_address(const std::vector<someip::Address>& addresses) {
  for (const auto& address : addresses) {
    someip::Udp_socket probe(address);
    if (!probe.bind({address, 0})) return address;
  }
  return std::nullopt;
}

Possible_way over_the_network(const std::string& node) {
  if (!has_address(node))
    throw std::runtime_error("this machine has no address of the node " + node);
  return network_as(node);
}

Possible_way choose_way(const Way_options& options) {
  const bool names_socket = options.connect.find('/') != std::string::npos;
  if (names_socket && !options.node.empty()) {
    throw tools::Usage_error("--node is for the network, --connect names a socket");
  }
  if (names_socket) {
    if (const auto error = listens(options.connect)) {
      const std::string text = options.connect + ": " + error.message();
      if (is_missing(error) || error == std::errc::connection_refused) throw tools::No_answer(text);
      throw std::runtime_error(text);
    }
    return {options.connect, usual_node, std::nullopt, "through " + options.connect};
  }
  auto network = network_as(options.node.empty() ? usual_node : options.node);
  if (!options.connect.empty()) network.only = address_of(options.connect);
  if (network.only || !options.node.empty() || environment_names_an_address()) return network;

  const auto paths = tq::com::socket_paths_of(application_node);
  std::string left_behind;  // by an application that has ended
  bool is_denied = false;
  for (const auto& path : paths) {
    const auto error = listens(path);
    if (!error) return {path, usual_node, std::nullopt, "through " + path};
    if (is_missing(error)) continue;
    network.text += "; not through " + path + ": " + error.message();
    if (error == std::errc::connection_refused) {
      left_behind = path;
    } else {
      is_denied = true;
    }
  }
  if (is_denied || has_address(usual_node)) return network;
  const std::string& path = left_behind.empty() ? paths.front() : left_behind;
  return {path, usual_node, std::nullopt,
          "no application listens at " + path + ", and this machine has no address of the node " +
              usual_node};
}

std::unique_ptr<tq::com::Runtime> open_way(const Possible_way& way) {
  if (!way.socket.empty()) return through(way.socket);
  try {
    return as_node(way.node, way.only);
  } catch (const std::exception& error) {
    throw std::runtime_error(error.what() + (" (" + way.text + ")"));
  }
}

Way::Way(const Possible_way& way) : text_{way.text}, runtime_{std::in_place, open_way(way)} {}

}  // namespace posctl
