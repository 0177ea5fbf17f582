/// Prints docs/interfaces.md from the descriptions in the code.
#include <iostream>

#include "clients/GNSS.h"
#include "clients/Time.h"
#include "posService/Positioning.h"
#include "tools/describe/record_table.h"

namespace {

constexpr auto introduction = R"(# Interfaces

Printed from the record descriptions in the code by `describe_interfaces`; a test compares. Service,
method and event ids, ports and timing stand in the deployment manifest (`config/manifest.json`);
`posctl describe` prints what is in force.

Every notification of the services below carries a vector: a 4-byte length in bytes, then the records, each
with a 4-byte length of its own. A record is a sequence of tagged members (SOME/IP TLV): two bytes of tag,
big-endian, with the wire type in bits 14 to 12 and the data ID in bits 11 to 0, then the value. Wire types
0, 1, 2 and 3 are values of 1, 2, 4 and 8 bytes; 4 to 7 carry a length field first. Numbers are
big-endian, signed and floating-point ones as their bit pattern. Every member is optional and absent when
its tag does not occur. Members are accepted in any order; of one sent twice the last counts; unknown data
IDs are skipped.

A measured quantity is followed by its `valueType`. Only quantities whose `valueType` is 4 (PhysicalValue)
are taken over.

The outputs of the diagnostic data identifiers, their units and worked examples are in
[data-identifiers.md](data-identifiers.md).

)";

template <class Service>
void print_service() {
  std::cout << "## " << Service::name << "\n\nVersion " << Service::version.major << "."
            << Service::version.minor << ".\n\n| Field | Payload |\n|---|---|\n";
  std::apply(
      [](const auto&... fields) {
        ((std::cout
          << "| `" << fields.name << "` | vector of `"
          << binding::Description<
                 typename std::remove_cvref_t<decltype(fields)>::value_type::value_type>::name
          << "` |\n"),
         ...);
        std::cout << "\n";
        ((std::cout << describe::markdown(
              describe::table_of<
                  typename std::remove_cvref_t<decltype(fields)>::value_type::value_type>())),
         ...);
      },
      Service::elements);
}

}  // namespace

int main() {
  std::cout << introduction;
  print_service<lumo::services::gnss::GNSS>();
  print_service<lumo::services::time::Time>();
  print_service<lumo::services::positioning::Positioning>();
  return std::cout.flush() ? 0 : 1;
}
