#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "binding/codec.h"
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

namespace posctl {
namespace {

namespace fs = std::filesystem;
using binding::Serialization_settings;

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
  static std::string hexadecimal(unsigned id) {
    std::array<char, 16> text{};
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

struct Limits {
  unsigned least;
  unsigned most;
};
/// Elements of a list. The analyser shows the limits, and takes more.
template <class T>
inline constexpr Limits limits_of{.least = 0, .most = 65535};
template <class T, unsigned long count>
inline constexpr Limits limits_of<std::array<T, count>>{.least = count, .most = count};

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

/// The type that the analyser shows for a member.
template <class Record, class Value>
using Shown_type = std::conditional_t<
    has_statuses<Record> && sizeof(Value) == 1,
    wireshark::Status,
    std::conditional_t<has_faults<Record>, std::vector<wireshark::Fault_entry>, Value>>;

/// Adds the type of each payload. A filter has the place of the member in its name, so every place
/// has records and lists of its own.
class Types {
 public:
  explicit Types(Tables& tables) : tables_(tables) {}

  /// Of an item inside another one.
  template <class T>
  Type add(const std::string& place,
           const Serialization_settings& around = binding::settings_of<T>) {
    const auto& settings = binding::settings_within<T>(around);
    return add_with<T>(place, settings, bits(binding::Codec<T>::length_field(settings)));
  }
  /// Of a whole payload.
  template <class T>
  Type add_payload(const std::string& place) {
    const Serialization_settings& settings = binding::settings_of<T>;
    const auto field = binding::Codec<T>::length_field(settings);
    return add_with<T>(place, settings,
                       binding::Codec<T>::top_level_length_field ? bits(field) : 0);
  }

 private:
  static unsigned bits(std::uint64_t bytes) { return static_cast<unsigned>(8 * bytes); }
  static std::string_view last_of(std::string_view place) {
    return place.substr(place.rfind('.') + 1);
  }

  template <class T>
  Type add_with(const std::string& place, const Serialization_settings& settings, unsigned length) {
    if constexpr (binding::Named_enumeration<T> || std::is_same_v<T, bool>) {
      return enumeration<T>(settings);
    } else if constexpr (binding::Scalar<T>) {
      return {Kind::base, base<T>(settings)};
    } else if constexpr (std::is_same_v<T, std::string>) {
      return string(settings, length);
    } else if constexpr (binding::Described<T>) {
      return record<T>(place, settings, length);
    } else if constexpr (requires { typename T::mapped_type; }) {
      return array(place, map_entry<T>(place, settings), limits_of<T>, length);
    } else {
      return array(place, add<typename T::value_type>(place, settings), limits_of<T>, length);
    }
  }

  template <class T>
  unsigned base(const Serialization_settings& settings) {
    const bool big_endian = settings.byte_order == binding::Byte_order::big_endian;
    constexpr unsigned size = 8 * sizeof(T);
    std::string kind = std::is_floating_point_v<T> ? "float" : "uint";
    if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) kind = "int";
    std::string name = kind + std::to_string(size);
    if (!big_endian) name += "_little_endian";
    const auto [known, added] = scalars_.try_emplace(name, next_);
    if (added) {
      ++next_;
      tables_.add("parameter_base_types", {Tables::hexadecimal(known->second), name,
                                           kind + std::to_string(size), big_endian, size, size});
    }
    return known->second;
  }

  template <class T>
  Type enumeration(const Serialization_settings& settings) {
    using Bits = binding::Bits_of<T>;
    const unsigned number = base<Bits>(settings);
    const auto values = [] {
      if constexpr (std::is_same_v<T, bool>) {
        return std::to_array<binding::Enumerator<bool>>({{false, "false"}, {true, "true"}});
      } else {
        return binding::enumerators<T>;
      }
    }();
    std::string name = "values";
    for (const auto& value : values)
      name.append(" ").append(value.name);
    name += " " + std::to_string(number);
    const auto [known, added] = scalars_.try_emplace(name, next_);
    if (added) {
      ++next_;
      for (const auto& value : values) {
        tables_.add("parameter_enums",
                    {Tables::hexadecimal(known->second), "enumeration",
                     static_cast<unsigned>(Kind::base), Tables::hexadecimal(number), values.size(),
                     Tables::hexadecimal(static_cast<Bits>(value.value)), value.name});
      }
    }
    return {Kind::enumeration, known->second};
  }

  Type string(const Serialization_settings& settings, unsigned length) {
    const bool big_endian = settings.byte_order == binding::Byte_order::big_endian;
    const auto [known, added] = scalars_.try_emplace(
        "string " + std::to_string(length) + (big_endian ? "" : " little-endian"), next_);
    if (added) {
      ++next_;
      tables_.add("parameter_strings", {Tables::hexadecimal(known->second), "string", "utf-8", true,
                                        0U, length, big_endian, 0U});
    }
    return {Kind::string, known->second};
  }

  Type array(const std::string& place, Type element, Limits limits, unsigned length) {
    const unsigned id = next_++;
    tables_.add(
        "parameter_arrays",
        {Tables::hexadecimal(id), last_of(place), static_cast<unsigned>(element.kind),
         Tables::hexadecimal(element.id), 1U, place, 0U, limits.least, limits.most, length, 0U});
    return {Kind::array, id};
  }

  struct Member {
    unsigned position;
    std::string name;
    std::string title;
    Type type;
  };
  Type structure(const std::string& place,
                 std::string_view name,
                 unsigned length,
                 bool tagged,
                 const std::vector<Member>& members) {
    const unsigned id = next_++;
    unsigned count = 0;
    for (const Member& member : members)
      count = std::max(count, member.position + 1);
    std::vector<bool> listed(count);
    const auto row = [&](unsigned position, std::string_view title, Type type,
                         const std::string& filter) {
      listed[position] = true;
      tables_.add("parameter_structs",
                  {Tables::hexadecimal(id), name, length, 0U, tagged, count, position, title,
                   static_cast<unsigned>(type.kind), Tables::hexadecimal(type.id), filter});
    };
    for (const Member& member : members)
      row(member.position, member.title, member.type, place + "." + member.name);
    // The analyser calls a payload malformed if an ID below the highest one is not listed.
    for (unsigned gap = 0; gap < count; ++gap) {
      if (listed[gap]) continue;
      const auto title = "unknown" + std::to_string(gap);
      row(gap, title, add<std::uint8_t>(place), place + "." + title);
    }
    return {Kind::structure, id};
  }

  template <class Record>
  Type record(const std::string& place, const Serialization_settings& settings, unsigned length) {
    std::vector<Member> members;
    std::string quantity;
    binding::for_each_member<Record>([&]<class M>(const M& described) {
      using Value = Shown_type<Record, typename M::value_type>;
      std::string name{described.name};
      if constexpr (std::is_same_v<Value, binding::Value_type>) {
        name = quantity + "_valueType";
      } else {
        quantity = name;
      }
      Member member{.position = static_cast<unsigned>(members.size()),
                    .name = name,
                    .title = name,
                    .type = add<Value>(place + "." + name, settings)};
      if constexpr (binding::Tlv_record<Record>) member.position = described.id;
      if (!described.unit.empty()) member.title.append(" [").append(described.unit).append("]");
      members.push_back(std::move(member));
    });
    return structure(place, mw::com::cpp_binding::short_name(binding::Description<Record>::name),
                     length, binding::Tlv_record<Record>, members);
  }

  template <class Map>
  Type map_entry(const std::string& place, const Serialization_settings& settings) {
    return structure(
        place, "entry", 0, false,
        {{0, "key", "key", add<typename Map::key_type>(place + ".key", settings)},
         {1, "value", "value", add<typename Map::mapped_type>(place + ".value", settings)}});
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

  /// "GNSS"; "d_14a0" for a data identifier.
  template <class Service>
  static std::string short_name() {
    std::string_view name = mw::com::cpp_binding::short_name(Service::name);
    if (name.starts_with("DataIdentifier_")) {
      name = lumo::services::diag::identifier_of(Service::name);
    }
    return std::string(name);
  }

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

  template <class Service>
  void add_payloads() {
    const std::string place = short_name<Service>();
    std::apply([&](const auto&... elements) { (add(elements, place), ...); }, Service::elements);
  }

 private:
  void add_method(unsigned method, const std::string& name) {
    tables_.add("method_event_identifiers", {id_, Tables::hexadecimal(method), name});
  }
  void add_group(unsigned group, const std::string& name) {
    tables_.add("eventgroup_identifiers", {id_, Tables::hexadecimal(group), name});
  }

  template <class Output, class... Inputs>
  void add(const mw::com::cpp_binding::Method<Output(Inputs...)>& element,
           const std::string& service) {
    const auto* method = find(service_.methods, element.name);
    if (method == nullptr) return;
    const std::string place = service + "." + method->name;
    if constexpr (!std::is_void_v<Output>) {
      payload(method->id, response, method->name, types_.add_payload<Output>(place), place);
    }
    static_assert(sizeof...(Inputs) <= 1, "one parameter has the whole payload");
    [[maybe_unused]] const auto kind = method->fire_and_forget ? request_no_return : request;
    (payload(method->id, kind, "input", types_.add_payload<Inputs>(place + ".input"),
             place + ".input"),
     ...);
  }
  template <class Value>
  void add(const mw::com::cpp_binding::Event<Value>& element, const std::string& service) {
    const auto* event = find(service_.events, element.name);
    if (event == nullptr) return;
    const std::string place = service + "." + event->name;
    payload(event->id, notification, event->name, types_.add_payload<Value>(place), place);
  }
  template <class Value>
  void add(const mw::com::cpp_binding::Field<Value>& element, const std::string& service) {
    const auto* field = find(service_.fields, element.name);
    if (field == nullptr) return;
    const std::string place = service + "." + field->name;
    const Type type = types_.add_payload<Value>(place);
    if (field->notifier) payload(*field->notifier, notification, field->name, type, place);
    if (field->getter) payload(*field->getter, response, field->name, type, place);
    if (field->setter) {
      payload(*field->setter, request, field->name, type, place);
      payload(*field->setter, response, field->name, type, place);
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

int describe_for_wireshark(const std::string& folder) {
  const someip::Deployment deployment = tq::com::load_deployment();
  Tables tables;
  Types types(tables);
  for (const auto& service : deployment.services) {
    Service_tables own(tables, types, service);
    std::string name = service.name;
    for_each_service([&]<class Interface>() {
      if (Interface::name != service.name) return;
      name = Service_tables::short_name<Interface>();
      own.add_payloads<Interface>();
    });
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
