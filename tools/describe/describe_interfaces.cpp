/// Prints docs/interfaces.md from the descriptions in the code.
#include <iostream>

#include "clients/GNSS.h"
#include "clients/Time.h"
#include "posService/Positioning.h"
#include "tools/describe/record_table.h"

namespace {

constexpr auto introduction = R"(# Interfaces

This page lists the records of the GNSS, Time and Positioning services, member by member.
`describe_interfaces` prints it from the descriptions in the code; a test compares. Service, method and event ids, ports and timing are in the
deployment manifest (`config/manifest.json`); `posctl describe` prints the values in force.

Every notification of the services below contains a vector: a 4-byte length in bytes, then the records, each
behind a 4-byte length of its own. A record is a sequence of tagged members (SOME/IP TLV): two bytes of tag,
big-endian, with the wire type in bits 14 to 12 and the data ID in bits 11 to 0, then the value. Wire types
0, 1, 2 and 3 are values of 1, 2, 4 and 8 bytes; 4 to 7 have a length field first. Numbers are
big-endian, signed and floating-point ones as their bit pattern. Every member is optional; it is absent if
its tag does not occur. Members are accepted in any order. If a member is sent twice, the last value counts.
Unknown data IDs are skipped.

`Get` of a field takes no payload and returns the vector of its last notification. Only the Time fields have
`Set`, which takes a vector and returns the one that the provider accepted. The application uses
notifications only.

The outputs of the diagnostic data identifiers, their units and worked examples are in
[data-identifiers.md](data-identifiers.md).

)";

constexpr auto gnss_notes =
    R"(The `valueType` of a measured quantity follows it. Only quantities whose `valueType` is 4 (PhysicalValue)
are forwarded.

)";

constexpr auto positioning_notes = R"(Each notification carries exactly one record.

- **Presence means validity.** No member has a `valueType`. A measured quantity is present if the GNSS
  service sent it as PhysicalValue, in the forwarded sample or in the other one of the same notification.
  Otherwise it is absent.
- **Values are forwarded as received.** Nothing checks them: time stamps, NaN, infinities and coordinates off
  the globe reach the consumer as the GNSS service sent them. The data identifier d_1192 reports them. The
  setting `ignoreGNSSTimestamps`, on by default, replaces the time stamp ([settings.md](settings.md)).
- **`age` is an absolute value.** A time stamp in the future has an age too. The 32 bits wrap after 71.6 min.
- **Constants.** The seven members `statusPosition` to `statusMapMatching` of a position, and
  `statusMapMatching` and `statusMap` of a map record, are constant in this version and say nothing about
  this sample. The two members called `statusMapMatching` are 0 and 2; the difference has no meaning.
- **Update operations.** A position update and a map-info update set a field from inside the application.
  This version makes one of each, at the start, to give the fields a value. Neither sends coordinates, so
  `positionType` is never present and `positionSource` is always 4.
- **The first notification** after a subscription is the present value of the field. Before the first
  forwarded position, `positions` holds only the time stamp of the start, and `posMapInfo` only `mapInfo` 0:
  neither is a position. Later it is the last published record, however old.

)";

/// `notes` follow the table of the service's fields.
template <class Service>
void print_service(const char* notes) {
  std::cout << "## " << Service::name << "\n\nVersion " << Service::version.major << "."
            << Service::version.minor << ".\n\n| Field | Payload |\n|---|---|\n";
  std::apply(
      [notes](const auto&... fields) {
        ((std::cout
          << "| `" << fields.name << "` | vector of `"
          << binding::Description<
                 typename std::remove_cvref_t<decltype(fields)>::value_type::value_type>::name
          << "` |\n"),
         ...);
        std::cout << "\n" << notes;
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
  print_service<lumo::services::gnss::GNSS>(gnss_notes);
  print_service<lumo::services::time::Time>("");
  print_service<lumo::services::positioning::Positioning>(positioning_notes);
  return std::cout.flush() ? 0 : 1;
}
