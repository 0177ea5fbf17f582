#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/linux/com/json_document.h"
#include "platform/linux/com/json_reader.h"
#include "platform/linux/com/manifest.h"
#include "platform/linux/com/manifest_keys.h"
#include "platform/someip/discovery/discovery_message.h"

namespace tq::com {

namespace {

using someip::Address;
using someip::Deployment;
using someip::Milliseconds;
using Members = Json_reader::Members;

Address address(const Json_reader& value, bool multicast) {
  boost::system::error_code error;
  const std::string text = value.is_text() ? value.text() : "";
  auto result = boost::asio::ip::make_address(text, error);
  if (error || (multicast ? !result.is_multicast() : !someip::reachable_peer(result, result, 0))) {
    value.fail(multicast ? "a multicast IP address" : "a unicast IP address");
  }
  return result;
}

/// Refuses an address that service discovery cannot reach together with its multicast group.
void require_family(const Json_reader& value, const Address& address, const Address& group) {
  if (address.is_v4() == group.is_v4()) return;
  value.fail(std::string(group.is_v4() ? "an IPv4" : "an IPv6") +
             " address, as the group of service discovery (" + group.to_string() + ") is one");
}

/// The numbers of a section that are given.
template <class Section>
void read_numbers(Members& members, Section& section) {
  for_each_manifest_key<Section>([&](const auto& key) {
    if (const auto found = members.find(key.name)) {
      key.set(section, found->number(key.low, key.high));
    }
  });
}

std::optional<std::uint16_t> optional_id(Members& members,
                                         const char* name,
                                         std::uint64_t low,
                                         std::uint64_t high) {
  const auto found = members.find(name);
  if (!found) return std::nullopt;
  return found->number<std::uint16_t>(low, high);
}

/// Values that may appear once only, with where they appeared.
template <class Value>
class Unique {
 public:
  explicit Unique(const char* what) : what_(what) {}
  void add(const Value& value, const Json_reader& where) {
    const auto [known, added] = seen_.emplace(value, where.path());
    if (!added) where.fail(what_ + std::string(" that is not used yet by ") + known->second);
  }
  [[nodiscard]] bool contains(const Value& value) const { return seen_.contains(value); }

 private:
  const char* what_;
  std::map<Value, std::string> seen_;
};
using Unique_id = Unique<std::uint64_t>;

/// Reads the nodes. No two of them share an address or a client id.
class Nodes {
 public:
  explicit Nodes(const Address& group) : group_(group) {}

  [[nodiscard]] std::vector<someip::Node_deployment> read(const Json_reader& value) {
    std::vector<someip::Node_deployment> result;
    std::vector<std::size_t> without_id;
    for (const auto& [name, one] : value.named()) {
      const bool has_id = add(name, one, result.emplace_back());
      if (!has_id) without_id.push_back(result.size() - 1);
    }
    std::uint16_t id = someip::Node_deployment().client_id;
    for (const std::size_t index : without_id) {
      while (client_ids_.contains(id))
        ++id;
      result[index].client_id = id++;
    }
    return result;
  }

 private:
  /// Returns whether the node has a client id of its own.
  bool add(const std::string& name, const Json_reader& value, someip::Node_deployment& node) {
    Members members(value);
    node.name = name;
    const auto one = members.find("address");
    const auto several = members.find("addresses");
    if (one.has_value() == several.has_value()) {
      value.fail("either \"address\" or \"addresses\"");
    }
    const auto given = one ? std::vector{*one} : several->elements();
    if (given.empty()) several->fail("at least one address");
    if (!group_.is_v4()) node.prefix_length = 64;
    if (const auto prefix = members.find("prefixLength")) {
      node.prefix_length = prefix->number<std::uint8_t>(0, group_.is_v4() ? 32 : 128);
    }
    for (const auto& element : given) {
      node.addresses.push_back(address(element, false));
      require_family(element, node.addresses.back(), group_);
      if (!someip::reachable_peer(node.addresses.back(), node.addresses.back(),
                                  node.prefix_length)) {
        element.fail("a unicast IP address, not the broadcast address of a /" +
                     std::to_string(node.prefix_length) + " subnet");
      }
      addresses_.add(node.addresses.back(), element);
    }
    read_numbers(members, node);
    const auto client_id = members.find("clientId");
    if (client_id) client_ids_.add(node.client_id, *client_id);
    if (const auto watch = members.find("watchLink")) node.watch_link = watch->boolean();
    if (const auto local = members.find("localSocket")) node.local_socket = local->boolean();
    members.done();
    return client_id.has_value();
  }

  const Address& group_;  ///< of service discovery
  Unique<Address> addresses_{"an address"};
  Unique_id client_ids_{"a client id"};
};

/// Refuses a time to live that ends before it is renewed.
void require_renewal(Members& members, const char* key, std::uint32_t ttl, Milliseconds renewal) {
  if (ttl == someip::endless_ttl || std::chrono::seconds(ttl) > renewal) return;
  const auto given = members.find(key);
  if (given)
    given->fail("more than cyclicOfferDelayMs, " + std::to_string(renewal.count()) + " ms");
  members.at("cyclicOfferDelayMs")
      .fail("less than " + std::string(key) + ", " + std::to_string(ttl) + " s");
}

someip::Discovery_timing discovery(const Json_reader& value) {
  Members members(value);
  someip::Discovery_timing result;
  if (const auto found = members.find("multicastAddress")) {
    result.multicast_address = address(*found, true);
  }
  if (const auto found = members.find("subscriptionsForOthers")) {
    result.subscriptions_for_others = found->boolean();
  }
  read_numbers(members, result);
  members.done();
  require_renewal(members, "offerTtlS", result.offer_ttl, result.cyclic_offer_delay);
  require_renewal(members, "subscribeTtlS", result.subscribe_ttl, result.cyclic_offer_delay);
  require_renewal(members, "longestOfferTtlS", result.longest_offer_ttl, result.cyclic_offer_delay);
  require_renewal(members, "longestSubscribeTtlS", result.longest_subscribe_ttl,
                  result.cyclic_offer_delay);
  if (result.initial_delay_min > result.initial_delay_max) {
    value.fail("initialDelayMinMs not above initialDelayMaxMs");
  }
  if (result.request_response_delay_min > result.request_response_delay_max) {
    value.fail("requestResponseDelayMinMs not above requestResponseDelayMaxMs");
  }
  return result;
}

/// A section of nothing but numbers.
template <class Section>
Section numbers(const Json_reader& value) {
  Members members(value);
  Section result;
  read_numbers(members, result);
  members.done();
  return result;
}

someip::Transport transport(Members& members) {
  const auto found = members.find("transport");
  if (!found) return someip::Transport::udp;
  const std::string text = found->is_text() ? found->text() : "";
  if (text != "udp" && text != "tcp") found->fail("\"udp\" or \"tcp\"");
  return text == "udp" ? someip::Transport::udp : someip::Transport::tcp;
}

constexpr std::uint64_t max_method = 0x7FFF;
constexpr std::uint64_t min_event = 0x8000;
constexpr std::uint64_t max_event = 0xFFFE;

void read_elements(Members& members, someip::Service_deployment& service) {
  Unique_id methods("a method id"), events("an event id");
  std::map<std::string, std::string> names;
  // `read` takes what is special about an element.
  const auto read_each = [&](const char* kind, auto& elements, const auto& read) {
    const auto found = members.find(kind);
    if (!found) return;
    for (const auto& [name, value] : found->named()) {
      const auto [known, added] = names.emplace(name, value.path());
      if (!added) value.fail("a name that is not used yet by " + known->second);
      Members one(value);
      auto& element = elements.emplace_back();
      element.name = name;
      element.transport = transport(one);
      read(element, one, value);
      one.done();
    }
  };
  read_each("methods", service.methods, [&](auto& method, Members& one, const Json_reader& value) {
    method.id = one.at("id").number<std::uint16_t>(1, max_method);
    methods.add(method.id, value);
    if (const auto flag = one.find("fireAndForget")) method.fire_and_forget = flag->boolean();
  });
  read_each("events", service.events, [&](auto& event, Members& one, const Json_reader& value) {
    event.id = one.at("id").number<std::uint16_t>(min_event, max_event);
    events.add(event.id, value);
    event.event_group = one.at("eventGroup").number<std::uint16_t>(1, 0xFFFE);
  });
  read_each("fields", service.fields, [&](auto& field, Members& one, const Json_reader& value) {
    field.getter = optional_id(one, "getter", 1, max_method);
    field.setter = optional_id(one, "setter", 1, max_method);
    field.notifier = optional_id(one, "notifier", min_event, max_event);
    if (!field.getter && !field.setter && !field.notifier) {
      value.fail("a getter, a setter or a notifier");
    }
    if (field.getter) methods.add(*field.getter, value);
    if (field.setter) methods.add(*field.setter, value);
    if (field.notifier) {
      events.add(*field.notifier, value);
      field.event_group = one.at("eventGroup").number<std::uint16_t>(1, 0xFFFE);
    }
  });
}

someip::Multicast_deployment multicast(const Json_reader& value, const Address& discovery_group) {
  Members members(value);
  someip::Multicast_deployment result;
  result.event_group = members.at("eventGroup").number<std::uint16_t>(1, 0xFFFE);
  const auto where = members.at("address");
  result.address = address(where, true);
  require_family(where, result.address, discovery_group);
  result.port = members.at("port").number<std::uint16_t>(1, 0xFFFF);
  result.threshold = members.at("threshold").number<std::uint32_t>(0, 0xFFFF);
  members.done();
  return result;
}

bool uses(const someip::Service_deployment& service, someip::Transport transport) {
  const auto same = [&](const auto& element) { return element.transport == transport; };
  return std::ranges::any_of(service.methods, same) || std::ranges::any_of(service.events, same) ||
         std::ranges::any_of(service.fields, same);
}

someip::Instance_deployment instance(const Json_reader& value,
                                     const someip::Service_deployment& service,
                                     const Deployment& deployment) {
  Members members(value);
  someip::Instance_deployment result;
  result.id = members.at("id").number<std::uint16_t>(1, 0xFFFE);
  result.specifier = members.at("specifier").text();
  const auto node = members.at("node");
  result.node = node.text();
  if (std::ranges::none_of(deployment.nodes,
                           [&](const auto& known) { return known.name == result.node; })) {
    node.fail("the name of one of the nodes");
  }
  for (const auto& [name, port] :
       {std::pair{"udpPort", &result.udp_port}, std::pair{"tcpPort", &result.tcp_port}}) {
    const auto found = members.find(name);
    if (!found) continue;
    *port = found->number<std::uint16_t>(1, 0xFFFF);
    if (**port == deployment.discovery.port) {
      found->fail("a port other than that of service discovery");
    }
  }
  if (const auto found = members.find("multicast")) {
    for (const auto& element : found->elements()) {
      const auto& group =
          result.multicast.emplace_back(multicast(element, deployment.discovery.multicast_address));
      const auto in_group = [&](const auto& one) { return one.event_group == group.event_group; };
      if (std::ranges::none_of(service.events, in_group) &&
          std::ranges::none_of(service.fields, in_group)) {
        element.fail("an event group of the service");
      }
    }
  }
  members.done();
  if (!result.udp_port && !result.tcp_port) value.fail("\"udpPort\" or \"tcpPort\"");
  if (uses(service, someip::Transport::udp) && !result.udp_port) {
    value.fail("\"udpPort\" for the elements over UDP");
  }
  if (uses(service, someip::Transport::tcp) && !result.tcp_port) {
    value.fail("\"tcpPort\" for the elements over TCP");
  }
  return result;
}

someip::Service_deployment service(const std::string& name,
                                   const Json_reader& value,
                                   const Deployment& deployment) {
  Members members(value);
  someip::Service_deployment result;
  result.name = name;
  result.id = members.at("id").number<std::uint16_t>(1, 0xFFFD);
  result.major_version = members.at("majorVersion").number<std::uint8_t>(0, 0xFE);
  result.minor_version = members.at("minorVersion").number<std::uint32_t>(0, 0xFFFFFFFE);
  read_elements(members, result);
  if (const auto found = members.find("instances")) {
    Unique_id ids("an instance id");
    // Instance ids are not in the messages: only the port distinguishes two instances
    // (someip_445).
    std::map<std::tuple<std::string, bool, std::uint16_t>, std::string> ports;
    for (const auto& element : found->elements()) {
      auto one = instance(element, result, deployment);
      ids.add(one.id, element);
      for (const auto& [port, tcp] :
           {std::pair{one.udp_port, false}, std::pair{one.tcp_port, true}}) {
        if (!port) continue;
        const auto [known, added] = ports.emplace(std::tuple(one.node, tcp, *port), element.path());
        if (!added) element.fail("a port that " + known->second + " of this service does not use");
      }
      result.instances.push_back(std::move(one));
    }
  }
  if (const auto found = members.find("allowedPeers")) {
    for (const auto& element : found->elements()) {
      result.allowed_peers.push_back(address(element, false));
    }
  }
  members.done();
  return result;
}

}  // namespace

Deployment parse_deployment(std::string_view text, const std::string& source) {
  const Json_reader::Json document = parse_document(text, source);
  const Json_reader root(document, "", source);
  Members members(root);
  Deployment result;
  result.source = source;
  if (const auto found = members.find("serviceDiscovery")) result.discovery = discovery(*found);
  result.nodes = Nodes(result.discovery.multicast_address).read(members.at("nodes"));
  if (const auto found = members.find("limits")) result.limits = numbers<someip::Limits>(*found);
  if (const auto found = members.find("segments")) {
    result.segments = numbers<someip::Segment_shaping>(*found);
  }
  Unique_id ids("a service id");
  std::map<std::string, std::string> specifiers;
  for (const auto& [name, value] : members.at("services").named()) {
    auto one = service(name, value, result);
    ids.add(one.id, value);
    for (const auto& instance : one.instances) {
      const auto [known, added] = specifiers.emplace(instance.specifier, value.path());
      if (!added)
        value.fail("an instance specifier other than \"" + instance.specifier + "\", which " +
                   known->second + " has");
    }
    result.services.push_back(std::move(one));
  }
  members.done();
  return result;
}

}  // namespace tq::com
