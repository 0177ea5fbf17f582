#include "binding/interface_description.h"

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

namespace binding {
namespace {

using Json = nlohmann::ordered_json;
using Kind = Type_description::Kind;

constexpr std::array<std::string_view, 5> type_kinds{"number", "enumeration", "text", "list",
                                                     "record"};
constexpr std::array<std::string_view, 3> element_kinds{"method", "event", "field"};
/// Of lists and records inside each other.
constexpr unsigned deepest = 32;

Json json_of(const Type_description& type) {
  Json json{{"kind", type_kinds.at(static_cast<std::size_t>(type.kind))}};
  if (!type.name.empty()) json["name"] = type.name;
  if (!type.big_endian) json["littleEndian"] = true;
  if (type.length_bytes != 0) json["lengthBytes"] = type.length_bytes;
  for (const auto& value : type.values)
    json["values"].push_back({{"value", value.value}, {"name", value.name}});
  if (type.kind == Kind::list) {
    json["least"] = type.least;
    json["most"] = type.most;
    json["element"] = json_of(type.members.front().type);
  } else if (type.kind == Kind::record) {
    json["tagged"] = type.tagged;
    json["members"] = Json::array();
    for (const auto& member : type.members) {
      json["members"].push_back({{"id", member.id}, {"name", member.name}});
      if (!member.unit.empty()) json["members"].back()["unit"] = member.unit;
      json["members"].back()["type"] = json_of(member.type);
    }
  }
  return json;
}

template <class Kinds>
std::size_t place_in(const Kinds& kinds, const Json& json) {
  const auto text = json.at("kind").get<std::string>();
  for (std::size_t place = 0; place < kinds.size(); ++place)
    if (kinds[place] == text) return place;
  throw std::runtime_error("the kind \"" + text + "\" is unknown");
}

Type_description type_of(const Json& json, unsigned depth = 0) {
  if (depth > deepest) throw std::runtime_error("more than 32 types inside each other");
  Type_description type;
  type.kind = static_cast<Kind>(place_in(type_kinds, json));
  type.name = json.value("name", "");
  type.big_endian = !json.value("littleEndian", false);
  type.length_bytes = json.value("lengthBytes", 0U);
  if (json.contains("values")) {
    for (const auto& value : json["values"])
      type.values.push_back(
          {value.at("value").get<std::uint64_t>(), value.at("name").get<std::string>()});
  }
  if (type.kind == Kind::list) {
    type.least = json.at("least").get<unsigned>();
    type.most = json.at("most").get<unsigned>();
    type.members.push_back({0, "", "", type_of(json.at("element"), depth + 1)});
  } else if (type.kind == Kind::record) {
    type.tagged = json.at("tagged").get<bool>();
    for (const auto& member : json.at("members")) {
      type.members.push_back({member.at("id").get<std::uint16_t>(),
                              member.at("name").get<std::string>(), member.value("unit", ""),
                              type_of(member.at("type"), depth + 1)});
    }
  }
  return type;
}

}  // namespace

std::string to_json(const std::vector<Interface_description>& interfaces) {
  Json json{{"schema", 1}, {"interfaces", Json::array()}};
  for (const auto& interface : interfaces) {
    Json elements = Json::array();
    for (const auto& element : interface.elements) {
      Json one{{"kind", element_kinds.at(static_cast<std::size_t>(element.kind))},
               {"name", element.name}};
      for (const auto& input : element.inputs)
        one["inputs"].push_back(json_of(input));
      if (element.value) one["value"] = json_of(*element.value);
      elements.push_back(std::move(one));
    }
    json["interfaces"].push_back({{"name", interface.name}, {"elements", std::move(elements)}});
  }
  return json.dump(2) + "\n";
}

std::vector<Interface_description> interfaces_of_json(std::string_view text) {
  std::vector<Interface_description> interfaces;
  std::string place;
  try {
    const Json json = Json::parse(text);
    for (const auto& one : json.at("interfaces")) {
      auto& interface = interfaces.emplace_back();
      interface.name = place = one.at("name").get<std::string>();
      for (const auto& element : one.at("elements")) {
        place = interface.name + "." + element.at("name").get<std::string>();
        Interface_description::Element read;
        read.kind = static_cast<Interface_description::Kind>(place_in(element_kinds, element));
        read.name = element.at("name").get<std::string>();
        if (element.contains("inputs")) {
          for (const auto& input : element["inputs"])
            read.inputs.push_back(type_of(input));
        }
        if (element.contains("value")) read.value = type_of(element["value"]);
        interface.elements.push_back(std::move(read));
      }
    }
  } catch (const std::exception& error) {
    throw std::runtime_error((place.empty() ? "" : place + ": ") + error.what());
  }
  return interfaces;
}

}  // namespace binding
