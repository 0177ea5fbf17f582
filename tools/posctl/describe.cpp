#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/linux/com/manifest.h"
#include "platform/linux/com/manifest_keys.h"
#include "platform/someip/base/hexadecimal.h"
#include "tools/command.h"
#include "tools/describe/record_table.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/record_json.h"
#include "tools/posctl/services.h"

namespace posctl {
namespace {

using someip::hexadecimal;

/// Name of an element and type of its payload, from the code.
struct Element {
  std::string_view name;
  std::string type;
};
struct Interface {
  std::string_view name;
  std::vector<Element> elements;
};

class Catalogue {
 public:
  Catalogue() {
    for_each_service([this]<class Interface>() { add<Interface>(); });
  }

  /// Empty for an unknown element.
  [[nodiscard]] std::string type_of(std::string_view service, std::string_view element) const {
    for (const auto& interface : interfaces_) {
      if (interface.name != service) continue;
      for (const auto& one : interface.elements) {
        if (one.name == element) return one.type;
      }
    }
    return "";
  }
  [[nodiscard]] const std::vector<describe::Table>& records() const { return records_; }

 private:
  template <class Service>
  void add() {
    Interface interface {
      .name = Service::name, .elements = {}
    };
    std::apply([&](const auto&... elements) { (add(interface, elements), ...); },
               Service::elements);
    interfaces_.push_back(std::move(interface));
  }
  template <class E>
  void add(Interface& interface, const E& element) {
    if constexpr (requires { typename E::output_type; }) {
      using Output = typename E::output_type;
      std::string type = "no result";
      if constexpr (!std::is_void_v<Output>) {
        type = describe::type_name<Output>();
        add_record<Output>();
      }
      interface.elements.push_back({element.name, type});
    } else {
      using Value = typename E::value_type;
      interface.elements.push_back({element.name, describe::type_name<Value>()});
      add_record<Value>();
    }
  }
  /// Adds a record with the records inside it; of a vector, those of its elements.
  template <class T>
  void add_record() {
    if constexpr (binding::Described<T>) {
      if (!known_.insert(binding::Description<T>::name).second) return;
      records_.push_back(describe::table_of<T>());
      binding::for_each_member<T>([&]<class M>(const M&) { add_record<typename M::value_type>(); });
    } else if constexpr (!std::is_same_v<T, std::string> && requires { typename T::value_type; }) {
      add_record<typename T::value_type>();
    }
  }

  std::vector<Interface> interfaces_;
  std::vector<describe::Table> records_;
  std::set<std::string_view> known_;
};

Json with_type(Json json, std::string type) {
  if (!type.empty()) json["type"] = std::move(type);
  return json;
}

const char* name_of(someip::Transport transport) {
  return transport == someip::Transport::tcp ? "tcp" : "udp";
}

/// Adds the numbers of a section under their keys of the manifest.
template <class Section>
void add_numbers(Json& json, const Section& section) {
  tq::com::for_each_manifest_key<Section>(
      [&](const auto& key) { json[key.name] = key.get(section); });
}

Json to_json(const std::vector<boost::asio::ip::address>& addresses) {
  Json json = Json::array();
  for (const auto& address : addresses)
    json.push_back(address.to_string());
  return json;
}

Json to_json(const someip::Node_deployment& node) {
  Json json{{"name", node.name},
            {"addresses", to_json(node.addresses)},
            {"prefixLength", node.prefix_length}};
  add_numbers(json, node);
  json["clientId"] = hexadecimal(node.client_id);
  json["watchLink"] = node.watch_link;
  json["localSocket"] = node.local_socket;
  return json;
}

Json to_json(const someip::Instance_deployment& instance) {
  Json json{
      {"id", hexadecimal(instance.id)}, {"specifier", instance.specifier}, {"node", instance.node}};
  if (instance.udp_port) json["udpPort"] = *instance.udp_port;
  if (instance.tcp_port) json["tcpPort"] = *instance.tcp_port;
  for (const auto& group : instance.multicast) {
    json["multicast"].push_back({{"eventGroup", hexadecimal(group.event_group)},
                                 {"address", group.address.to_string()},
                                 {"port", group.port},
                                 {"threshold", group.threshold}});
  }
  return json;
}

Json to_json(const someip::Service_deployment& service, const Catalogue& catalogue) {
  Json json{{"name", service.name},
            {"id", hexadecimal(service.id)},
            {"majorVersion", service.major_version},
            {"minorVersion", service.minor_version}};
  for (const auto& instance : service.instances)
    json["instances"].push_back(to_json(instance));
  for (const auto& method : service.methods) {
    json["methods"].push_back(with_type({{"name", method.name},
                                         {"id", hexadecimal(method.id)},
                                         {"transport", name_of(method.transport)},
                                         {"fireAndForget", method.fire_and_forget}},
                                        catalogue.type_of(service.name, method.name)));
  }
  for (const auto& event : service.events) {
    json["events"].push_back(with_type({{"name", event.name},
                                        {"id", hexadecimal(event.id)},
                                        {"eventGroup", hexadecimal(event.event_group)},
                                        {"transport", name_of(event.transport)}},
                                       catalogue.type_of(service.name, event.name)));
  }
  for (const auto& field : service.fields) {
    Json one{{"name", field.name}};
    if (field.getter) one["getter"] = hexadecimal(*field.getter);
    if (field.setter) one["setter"] = hexadecimal(*field.setter);
    if (field.notifier) {
      one["notifier"] = hexadecimal(*field.notifier);
      one["eventGroup"] = hexadecimal(field.event_group);
    }
    one["transport"] = name_of(field.transport);
    json["fields"].push_back(
        with_type(std::move(one), catalogue.type_of(service.name, field.name)));
  }
  if (!service.allowed_peers.empty()) json["allowedPeers"] = to_json(service.allowed_peers);
  return json;
}

Json to_json(const describe::Table& table) {
  Json json{{"name", table.name}, {"members", Json::array()}};
  for (const auto& row : table.rows) {
    Json one;
    if (table.tagged) {
      one["dataId"] = std::stoi(row.data_id);
      one["wireType"] = std::stoi(row.wire_type);
    }
    one["name"] = row.name;
    one["type"] = row.type;
    if (!row.unit.empty()) one["unit"] = row.unit;
    if (!row.meaning.empty()) one["meaning"] = row.meaning;
    json["members"].push_back(std::move(one));
  }
  return json;
}

Json to_json(const someip::Deployment& deployment, const Catalogue& catalogue) {
  Json json{{"schema", 1}, {"manifest", deployment.source}};
  for (const auto& node : deployment.nodes)
    json["nodes"].push_back(to_json(node));
  Json& discovery = json["serviceDiscovery"];
  discovery["multicastAddress"] = deployment.discovery.multicast_address.to_string();
  add_numbers(discovery, deployment.discovery);
  discovery["subscriptionsForOthers"] = deployment.discovery.subscriptions_for_others;
  add_numbers(json["limits"], deployment.limits);
  add_numbers(json["segments"], deployment.segments);
  for (const auto& service : deployment.services) {
    json["services"].push_back(to_json(service, catalogue));
  }
  for (const auto& table : catalogue.records())
    json["records"].push_back(to_json(table));
  return json;
}

/// As a person reads it: a text without quotes, a list of texts without brackets.
std::string plain(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (!value.is_array()) return value.dump();
  std::string joined;
  for (const auto& element : value)
    joined.append(joined.empty() ? "" : ",").append(plain(element));
  return joined;
}

/// The members of an object on one line, a name first.
void print_line(std::ostream& out, const std::string& what, const Json& object) {
  out << what;
  if (object.contains("name")) out << " " << plain(object["name"]);
  out << ":";
  for (const auto& [name, value] : object.items()) {
    if (name == "name") continue;
    out << " " << name << " " << plain(value);
  }
  out << "\n";
}

void print_lines(std::ostream& out, const std::string& what, const Json& parent, const char* key) {
  if (!parent.contains(key)) return;
  for (const auto& object : parent[key])
    print_line(out, what, object);
}

void print(std::ostream& out, const Json& json, const Catalogue& catalogue) {
  out << json["manifest"].get<std::string>() << "\n\n";
  print_lines(out, "node", json, "nodes");
  print_line(out, "service discovery", json["serviceDiscovery"]);
  print_line(out, "limits", json["limits"]);
  print_line(out, "segments", json["segments"]);
  for (const auto& service : json["services"]) {
    out << "\nservice " << service["name"].get<std::string>() << ": id "
        << service["id"].get<std::string>() << " version " << service["majorVersion"] << "."
        << service["minorVersion"] << "\n";
    print_lines(out, "  instance", service, "instances");
    print_lines(out, "  method", service, "methods");
    print_lines(out, "  event", service, "events");
    print_lines(out, "  field", service, "fields");
    if (service.contains("allowedPeers")) {
      out << "  allowed peers: " << plain(service["allowedPeers"]) << "\n";
    }
  }
  out << "\n";
  for (const auto& table : catalogue.records())
    out << describe::markdown(table);
}

}  // namespace

int describe_deployment(bool as_json) {
  const Catalogue catalogue;
  const Json json = to_json(tq::com::load_deployment(), catalogue);
  if (as_json) {
    tools::write_output(json.dump(2) + "\n");
  } else {
    std::ostringstream text;
    print(text, json, catalogue);
    tools::write_output(text.str());
  }
  return 0;
}

}  // namespace posctl
