#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "binding/codec.h"
#include "binding/interface_description.h"
#include "diagnosisService/monitor_table.h"
#include "platform/linux/com/manifest.h"
#include "platform/someip/base/deployment.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/services.h"

namespace posctl::wireshark {

/// What the five bytes of a fault of a consumed service mean. Only the analyser reads them as a
/// record.
enum class Faulty_service : std::uint8_t { gnss = 1, time = 2 };
constexpr auto enumerators_of(Faulty_service) {
  return std::to_array<binding::Enumerator<Faulty_service>>(
      {{Faulty_service::gnss, "GNSS"}, {Faulty_service::time, "Time"}});
}
struct Fault_entry {
  Faulty_service service{};
  std::uint8_t element = 0;
  bool present = false;
  std::uint16_t occurrences = 0;
};

enum class Status : std::uint8_t {};
constexpr auto enumerators_of(Status) {
  using diagnosisService::status_name;
  return std::to_array<binding::Enumerator<Status>>({{Status{0}, status_name(0)},
                                                     {Status{1}, status_name(1)},
                                                     {Status{2}, status_name(2)},
                                                     {Status{3}, status_name(3)}});
}

}  // namespace posctl::wireshark

template <>
struct binding::Description<posctl::wireshark::Fault_entry> {
  using Record = posctl::wireshark::Fault_entry;
  static constexpr std::string_view name = "fault";
  static constexpr auto entries =
      std::tuple{plain("service", &Record::service), plain("element", &Record::element),
                 plain("present", &Record::present), plain("occurrences", &Record::occurrences)};
};
/// The entries have no length field of their own.
template <>
inline constexpr binding::Serialization_settings
    binding::settings_of<posctl::wireshark::Fault_entry>{.structure_length_field_size = 0};

namespace posctl::wireshark {

/// Whether the bytes of a record are status bytes. Its 16-bit members hold two of them each.
template <class Record>
inline constexpr bool has_statuses =
    std::is_same_v<Record, lumo::services::diag::PositioningStatusInputs> ||
    std::is_same_v<Record, lumo::services::diag::PositioningStatusOutputs> ||
    std::is_same_v<Record, lumo::services::diag::PositioningStatusSystem>;
template <class Record>
inline constexpr bool has_faults = false;
template <lumo::services::diag::Data_bus_fault Fault>
inline constexpr bool has_faults<lumo::services::diag::Data_bus_fault_records<Fault>> = true;

}  // namespace posctl::wireshark

template <class Record, class Value>
requires(posctl::wireshark::has_statuses<Record> &&
         sizeof(Value) == 1) struct binding::Described_as<Record, Value> {
  using type = posctl::wireshark::Status;
};
template <class Record, class Value>
requires(posctl::wireshark::has_faults<Record>) struct binding::Described_as<Record, Value> {
  using type = std::vector<posctl::wireshark::Fault_entry>;
};

namespace posctl {
namespace {

namespace fs = std::filesystem;
using binding::Interface_description;
using binding::Type_description;
using Description_kind = Type_description::Kind;

/// The tables of a Wireshark profile as text, by file name.
class Tables {
 public:
  struct Cell {
    Cell(std::string_view value) : text(value) {}
    Cell(const char* value) : text(value) {}
    Cell(const std::string& value) : text(value) {}
    Cell(bool value) : text(value ? "TRUE" : "FALSE") {}
    template <std::unsigned_integral Number>
    Cell(Number value) : text(std::to_string(value)) {}

    std::string text;
  };
  /// As the tables have ids.
  static std::string hexadecimal(std::uint64_t id) {
    std::array<char, 20> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), id, 16).ptr;
    return {text.data(), end};
  }

  void add(const std::string& table, std::initializer_list<Cell> cells) {
    std::string& text = files_["SOMEIP_" + table];
    const char* separator = "";
    for (const Cell& cell : cells) {
      text.append(separator).append("\"").append(cell.text).append("\"");
      separator = ",";
    }
    text += "\n";
  }
  void add_line(const std::string& file, const std::string& line) {
    files_[file].append(line).append("\n");
  }

  /// Throws std::system_error.
  void write(const fs::path& folder) const {
    fs::create_directories(folder);
    for (const auto& [name, text] : files_) {
      errno = 0;
      std::ofstream file(folder / name, std::ios::trunc);
      if (file << text << std::flush) continue;
      throw std::system_error(errno, std::generic_category(),
                              "cannot write " + (folder / name).string());
    }
  }

 private:
  std::map<std::string, std::string> files_;
};

/// The analyser's numbers for the kinds of types.
enum class Kind : std::uint8_t { base = 1, string = 2, array = 3, structure = 4, enumeration = 7 };

struct Type {
  Kind kind;
  unsigned id;
};

/// Throws for a name that is none.
unsigned bits_of_number(const std::string& name) {
  constexpr auto names = std::to_array<std::pair<std::string_view, unsigned>>({{"uint8", 8},
                                                                               {"uint16", 16},
                                                                               {"uint32", 32},
                                                                               {"uint64", 64},
                                                                               {"int8", 8},
                                                                               {"int16", 16},
                                                                               {"int32", 32},
                                                                               {"int64", 64},
                                                                               {"float32", 32},
                                                                               {"float64", 64}});
  for (const auto& [known, bits] : names)
    if (known == name) return bits;
  throw std::runtime_error("the number type \"" + name + "\" is unknown");
}

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

/// Adds the type of each payload. A filter has the place of the member in its name, so every place
/// has records and lists of its own.
class Types {
 public:
  explicit Types(Tables& tables) : tables_(tables) {}

  Type add(const std::string& place, const Type_description& type) {
    switch (type.kind) {
      case Description_kind::enumeration:
        return enumeration(type);
      case Description_kind::text:
        return string(type);
      case Description_kind::list:
        return array(place, add(place, type.members.at(0).type), type);
      case Description_kind::record:
        return structure(place, type);
      case Description_kind::number:
        break;
    }
    return {Kind::base, base(type)};
  }

 private:
  static unsigned bits(const Type_description& type) { return 8 * type.length_bytes; }
  static std::string_view last_of(std::string_view place) {
    return place.substr(place.rfind('.') + 1);
  }

  unsigned base(const Type_description& type) {
    const std::string name = type.name + (type.big_endian ? "" : "_little_endian");
    const auto [known, added] = scalars_.try_emplace(name, next_);
    if (added) {
      ++next_;
      const unsigned size = bits_of_number(type.name);
      tables_.add("parameter_base_types", {Tables::hexadecimal(known->second), name, type.name,
                                           type.big_endian, size, size});
    }
    return known->second;
  }

  Type enumeration(const Type_description& type) {
    const unsigned number = base(type);
    std::string name = "values";
    for (const auto& value : type.values)
      name.append(" ").append(value.name);
    name += " " + std::to_string(number);
    const auto [known, added] = scalars_.try_emplace(name, next_);
    if (added) {
      ++next_;
      for (const auto& value : type.values) {
        tables_.add("parameter_enums",
                    {Tables::hexadecimal(known->second), "enumeration",
                     static_cast<unsigned>(Kind::base), Tables::hexadecimal(number),
                     type.values.size(), Tables::hexadecimal(value.value), value.name});
      }
    }
    return {Kind::enumeration, known->second};
  }

  Type string(const Type_description& type) {
    const auto [known, added] = scalars_.try_emplace(
        "string " + std::to_string(bits(type)) + (type.big_endian ? "" : " little-endian"), next_);
    if (added) {
      ++next_;
      tables_.add("parameter_strings", {Tables::hexadecimal(known->second), "string", "utf-8", true,
                                        0U, bits(type), type.big_endian, 0U});
    }
    return {Kind::string, known->second};
  }

  Type array(const std::string& place, Type element, const Type_description& list) {
    const unsigned id = next_++;
    tables_.add(
        "parameter_arrays",
        {Tables::hexadecimal(id), last_of(place), static_cast<unsigned>(element.kind),
         Tables::hexadecimal(element.id), 1U, place, 0U, list.least, list.most, bits(list), 0U});
    return {Kind::array, id};
  }

  Type structure(const std::string& place, const Type_description& record) {
    std::vector<Type> types;
    unsigned count = 0;
    for (const auto& member : record.members) {
      types.push_back(add(place + "." + member.name, member.type));
      count = std::max(count, member.id + 1);
    }
    const unsigned id = next_++;
    std::vector<bool> listed(count);
    const auto row = [&](unsigned position, std::string_view title, Type type,
                         const std::string& filter) {
      listed[position] = true;
      tables_.add("parameter_structs",
                  {Tables::hexadecimal(id), mw::com::cpp_binding::short_name(record.name),
                   bits(record), 0U, record.tagged, count, position, title,
                   static_cast<unsigned>(type.kind), Tables::hexadecimal(type.id), filter});
    };
    for (std::size_t i = 0; i < types.size(); ++i) {
      const auto& member = record.members[i];
      const std::string unit = member.unit.empty() ? "" : " [" + member.unit + "]";
      row(member.id, member.name + unit, types[i], place + "." + member.name);
    }
    // The analyser calls a payload malformed if an ID below the highest one is not listed.
    for (unsigned gap = 0; gap < count; ++gap) {
      if (listed[gap]) continue;
      const auto title = "unknown" + std::to_string(gap);
      row(gap, title, {Kind::base, base({.name = "uint8", .members = {}})}, place + "." + title);
    }
    return {Kind::structure, id};
  }

  Tables& tables_;
  unsigned next_ = 1;
  std::map<std::string, unsigned> scalars_;  ///< ids of what needs no place
};

/// Message types.
constexpr unsigned request = 0x00;
constexpr unsigned request_no_return = 0x01;
constexpr unsigned notification = 0x02;
constexpr unsigned response = 0x80;

/// The names and the payloads of one service of the manifest.
class Service_tables {
 public:
  Service_tables(Tables& tables, Types& types, const someip::Service_deployment& service)
      : tables_(tables), types_(types), service_(service), id_(Tables::hexadecimal(service.id)) {}

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
    tables_.add("client_identifiers", {id_, Tables::hexadecimal(client), name});
  }

  void add_payloads(const std::string& name, const Interface_description& interface) {
    for (const auto& element : interface.elements)
      add(element, name + "." + element.name);
  }

 private:
  void add_method(unsigned method, const std::string& name) {
    tables_.add("method_event_identifiers", {id_, Tables::hexadecimal(method), name});
  }
  void add_group(unsigned group, const std::string& name) {
    tables_.add("eventgroup_identifiers", {id_, Tables::hexadecimal(group), name});
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
                {id_, Tables::hexadecimal(method), unsigned{service_.major_version},
                 Tables::hexadecimal(message_type), false, 1U, 0U, name,
                 static_cast<unsigned>(type.kind), Tables::hexadecimal(type.id), place});
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
