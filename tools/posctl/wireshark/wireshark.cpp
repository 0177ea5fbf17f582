#include <exception>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/com/manifest.h"
#include "platform/someip/base/deployment.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/services.h"
#include "tools/posctl/wireshark/payload_records.h"
#include "tools/posctl/wireshark/types.h"

namespace posctl {
namespace {

using binding::Interface_description;
using wireshark::Tables;
using wireshark::Type;
using wireshark::Types;

/// "GNSS"; "d_14a0" for a data identifier.
std::string short_name_of(const std::string& interface) {
  const auto name = mw::com::cpp_binding::short_name(interface);
  return std::string(
      name.starts_with("DataIdentifier_") ? lumo::services::diag::identifier_of(interface) : name);
}

/// Those in posctl, and those of `files`, which replace them.
std::map<std::string, Interface_description> interfaces_of(const std::vector<std::string>& files) {
  std::map<std::string, Interface_description> interfaces;
  for_each_service([&]<class Interface>() {
    interfaces.emplace(Interface::name, binding::interface_description<Interface>());
  });
  for (const auto& file : files) {
    std::ifstream stream(file, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(stream), {}};
    if (!stream) throw std::runtime_error("cannot read " + file);
    try {
      for (auto& interface : binding::interfaces_of_json(text))
        interfaces.insert_or_assign(interface.name, interface);
    } catch (const std::exception& error) {
      throw std::runtime_error(file + ": " + error.what());
    }
  }
  return interfaces;
}

/// Message types.
constexpr unsigned request = 0x00;
constexpr unsigned request_no_return = 0x01;
constexpr unsigned notification = 0x02;
constexpr unsigned response = 0x80;

/// The names and the payloads of one service of the manifest.
class Service_tables {
 public:
  Service_tables(Tables& tables, Types& types, const someip::Service_deployment& service)
      : tables_(tables),
        types_(types),
        service_(service),
        id_(Tables::bare_hexadecimal(service.id)) {}

  void add_names(const std::string& name) {
    tables_.add("service_identifiers", {id_, name});
    for (const auto& method : service_.methods)
      add_method(method.id, method.name);
    for (const auto& event : service_.events) {
      add_method(event.id, event.name);
      add_group(event.event_group, event.name);
    }
    for (const auto& field : service_.fields) {
      if (field.getter) add_method(*field.getter, field.name + ".get");
      if (field.setter) add_method(*field.setter, field.name + ".set");
      if (!field.notifier) continue;
      add_method(*field.notifier, field.name);
      add_group(field.event_group, field.name);
    }
  }
  void add_client(unsigned client, const std::string& name) {
    tables_.add("client_identifiers", {id_, Tables::bare_hexadecimal(client), name});
  }

  void add_payloads(const std::string& name, const Interface_description& interface) {
    for (const auto& element : interface.elements)
      add(element, name + "." + element.name);
  }

 private:
  void add_method(unsigned method, const std::string& name) {
    tables_.add("method_event_identifiers", {id_, Tables::bare_hexadecimal(method), name});
  }
  void add_group(unsigned group, const std::string& name) {
    tables_.add("eventgroup_identifiers", {id_, Tables::bare_hexadecimal(group), name});
  }

  void add(const Interface_description::Element& element, const std::string& place) {
    switch (element.kind) {
      case Interface_description::Kind::method:
        if (const auto* method = find(service_.methods, element.name)) add(*method, element, place);
        break;
      case Interface_description::Kind::event:
        if (const auto* event = find(service_.events, element.name); event && element.value) {
          payload(event->id, notification, event->name, types_.add(place, *element.value), place);
        }
        break;
      case Interface_description::Kind::field:
        if (const auto* field = find(service_.fields, element.name); field && element.value)
          add(*field, types_.add(place, *element.value), place);
        break;
    }
  }
  void add(const someip::Method_deployment& method,
           const Interface_description::Element& element,
           const std::string& place) {
    if (element.value)
      payload(method.id, response, method.name, types_.add(place, *element.value), place);
    // Of several parameters the analyser would need the border between them.
    if (element.inputs.size() != 1) return;
    const std::string input = place + ".input";
    payload(method.id, method.fire_and_forget ? request_no_return : request, "input",
            types_.add(input, element.inputs.front()), input);
  }
  void add(const someip::Field_deployment& field, Type type, const std::string& place) {
    if (field.notifier) payload(*field.notifier, notification, field.name, type, place);
    if (field.getter) payload(*field.getter, response, field.name, type, place);
    if (field.setter) {
      payload(*field.setter, request, field.name, type, place);
      payload(*field.setter, response, field.name, type, place);
    }
  }

  void payload(unsigned method,
               unsigned message_type,
               std::string_view name,
               Type type,
               const std::string& place) {
    tables_.add("parameter_list",
                {id_, Tables::bare_hexadecimal(method), unsigned{service_.major_version},
                 Tables::bare_hexadecimal(message_type), false, 1U, 0U, name,
                 static_cast<unsigned>(type.kind), Tables::bare_hexadecimal(type.id), place});
  }

  template <class Elements>
  static const typename Elements::value_type* find(const Elements& elements,
                                                   std::string_view name) {
    for (const auto& element : elements) {
      if (element.name == name) return &element;
    }
    return nullptr;
  }

  Tables& tables_;
  Types& types_;
  const someip::Service_deployment& service_;
  const std::string id_;
};

void add_ports(Tables& tables, const someip::Deployment& deployment) {
  std::set<unsigned> udp{deployment.discovery.port};
  std::set<unsigned> tcp;
  for (const auto& service : deployment.services) {
    for (const auto& instance : service.instances) {
      if (instance.udp_port) udp.insert(*instance.udp_port);
      if (instance.tcp_port) tcp.insert(*instance.tcp_port);
      for (const auto& multicast : instance.multicast)
        udp.insert(multicast.port);
    }
  }
  const auto decode = [&](const char* table, const std::set<unsigned>& ports) {
    for (const unsigned port : ports)
      tables.add_line("decode_as_entries", std::string("decode_as_entry: ") + table + "," +
                                               std::to_string(port) + ",(none),SOME/IP");
  };
  decode("udp.port", udp);
  decode("tcp.port", tcp);
}

}  // namespace

int describe_for_wireshark(const std::string& folder, const std::vector<std::string>& files) {
  const someip::Deployment deployment = tq::com::load_deployment();
  const auto interfaces = interfaces_of(files);
  Tables tables;
  Types types(tables);
  for (const auto& service : deployment.services) {
    Service_tables own(tables, types, service);
    std::string name = service.name;
    if (const auto known = interfaces.find(name); known != interfaces.end()) {
      name = short_name_of(name);
      own.add_payloads(name, known->second);
    }
    own.add_names(name);
    for (const auto& node : deployment.nodes)
      own.add_client(node.client_id, node.name);
  }
  add_ports(tables, deployment);
  tables.add_line("preferences", "someip.payload_dissector_activated: TRUE");
  tables.add_line("preferences", "someip.reassemble_tp: TRUE");
  tables.write(folder);
  return 0;
}

}  // namespace posctl
