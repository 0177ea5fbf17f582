#include "tools/posctl/wireshark/types.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "mw/com/cpp_binding/service.h"

namespace posctl::wireshark {
namespace {

using binding::Type_description;
using Description_kind = Type_description::Kind;

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

unsigned bits(const Type_description& type) {
  return 8 * type.length_bytes;
}
std::string_view last_of(std::string_view place) {
  return place.substr(place.rfind('.') + 1);
}

}  // namespace

Type Types::add(const std::string& place, const Type_description& type) {
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

unsigned Types::base(const Type_description& type) {
  const std::string name = type.name + (type.big_endian ? "" : "_little_endian");
  const auto [known, added] = scalars_.try_emplace(name, next_);
  if (added) {
    ++next_;
    const unsigned size = bits_of_number(type.name);
    tables_.add("parameter_base_types", {Tables::bare_hexadecimal(known->second), name, type.name,
                                         type.big_endian, size, size});
  }
  return known->second;
}

Type Types::enumeration(const Type_description& type) {
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
                  {Tables::bare_hexadecimal(known->second), "enumeration",
                   static_cast<unsigned>(Kind::base), Tables::bare_hexadecimal(number),
                   type.values.size(), Tables::bare_hexadecimal(value.value), value.name});
    }
  }
  return {Kind::enumeration, known->second};
}

Type Types::string(const Type_description& type) {
  const auto [known, added] = scalars_.try_emplace(
      "string " + std::to_string(bits(type)) + (type.big_endian ? "" : " little-endian"), next_);
  if (added) {
    ++next_;
    tables_.add("parameter_strings", {Tables::bare_hexadecimal(known->second), "string", "utf-8",
                                      true, 0U, bits(type), type.big_endian, 0U});
  }
  return {Kind::string, known->second};
}

Type Types::array(const std::string& place, Type element, const Type_description& list) {
  const unsigned id = next_++;
  tables_.add(
      "parameter_arrays",
      {Tables::bare_hexadecimal(id), last_of(place), static_cast<unsigned>(element.kind),
       Tables::bare_hexadecimal(element.id), 1U, place, 0U, list.least, list.most, bits(list), 0U});
  return {Kind::array, id};
}

Type Types::structure(const std::string& place, const Type_description& record) {
  const std::string inside = place + ".";
  std::vector<Type> types;
  unsigned count = 0;
  for (const auto& member : record.members) {
    types.push_back(add(inside + member.name, member.type));
    count = std::max(count, member.id + 1);
  }
  const unsigned id = next_++;
  std::vector<bool> listed(count);
  const auto row = [&](unsigned position, std::string_view title, Type type,
                       const std::string& filter) {
    listed[position] = true;
    tables_.add("parameter_structs",
                {Tables::bare_hexadecimal(id), mw::com::cpp_binding::short_name(record.name),
                 bits(record), 0U, record.tagged, count, position, title,
                 static_cast<unsigned>(type.kind), Tables::bare_hexadecimal(type.id), filter});
  };
  for (std::size_t i = 0; i < types.size(); ++i) {
    const auto& member = record.members[i];
    const std::string unit = member.unit.empty() ? "" : " [" + member.unit + "]";
    row(member.id, member.name + unit, types[i], inside + member.name);
  }
  // The analyser calls a payload malformed if an ID below the highest one is not listed.
  for (unsigned gap = 0; gap < count; ++gap) {
    if (listed[gap]) continue;
    const auto title = "unknown" + std::to_string(gap);
    row(gap, title, {Kind::base, base({.name = "uint8", .members = {}})}, inside + title);
  }
  return {Kind::structure, id};
}

}  // namespace posctl::wireshark
