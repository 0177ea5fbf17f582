/// The tables of an analyser for the types of payloads.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "binding/interface_description.h"
#include "tools/posctl/wireshark/tables.h"

namespace posctl::wireshark {

/// The analyser's numbers for the kinds of types.
enum class Kind : std::uint8_t { base = 1, string = 2, array = 3, structure = 4, enumeration = 7 };

struct Type {
  Kind kind;
  unsigned id;
};

/// Adds the type of each payload. A filter has the place of the member in its name, so every place
/// has records and lists of its own.
class Types {
 public:
  explicit Types(Tables& tables) : tables_(tables) {}

  Type add(const std::string& place, const binding::Type_description& type);

 private:
  unsigned base(const binding::Type_description& type);
  Type enumeration(const binding::Type_description& type);
  Type string(const binding::Type_description& type);
  Type array(const std::string& place, Type element, const binding::Type_description& list);
  Type structure(const std::string& place, const binding::Type_description& record);

  Tables& tables_;
  unsigned next_ = 1;
  std::map<std::string, unsigned> scalars_;  ///< ids of what needs no place
};

}  // namespace posctl::wireshark
