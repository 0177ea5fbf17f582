/// The records of a notification, part by part, as every source of positions fills them.
#pragma once

#include <algorithm>
#include <array>
#include <boost/optional.hpp>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "clients/gnss_records.h"
#include "tools/gnss-gateway/context.h"
#include "tools/nmea/fix.h"

namespace gateway {

namespace datatypes = lumo::services::gnss::datatypes;
using Quality = boost::optional<binding::Value_type>;

/// Takes a value that can be used.
template <class Value, class Source>
void physical(boost::optional<Value>& value, Quality& quality, Source source) {
  value = static_cast<Value>(source);
  quality = binding::Value_type::physical_value;
}

/// Takes a value that the source may have reported. If the source marks it as unusable, the value
/// stays, with quality Error.
template <class Value, class Source>
void told(boost::optional<Value>& value,
          Quality& quality,
          const std::optional<Source>& source,
          bool good) {
  if (source) value = static_cast<Value>(*source);
  if (!good) {
    quality = binding::Value_type::error;
  } else if (source) {
    quality = binding::Value_type::physical_value;
  }
}

/// For a quantity that the source measures, but not now.
template <class Value>
void missing(boost::optional<Value>& value, Quality& quality) {
  value = boost::none;
  quality = binding::Value_type::error;
}

/// Course over ground and heading, by one rule for every source: a measured heading has priority,
/// and the course replaces a missing one where it can. `good`: the source knows its course now.
/// The accuracy is that of the heading or of the course, whichever yawAngle is.
void fill_direction(datatypes::DT_positions_struct& record, const nmea::Fix& fix, bool good);

[[nodiscard]] datatypes::DT_positions_struct new_position(lumo::services::Position_type type,
                                                          const Context& context);
[[nodiscard]] datatypes::DT_positionsQuality_struct new_quality(lumo::services::Position_type type,
                                                                datatypes::Fix_type status,
                                                                const Context& context);

/// Satellites counted by system.
struct Count {
  std::array<std::uint8_t, binding::enumerators<datatypes::Gnss_system>.size()> by_system{};
  std::uint32_t systems = 0;  ///< bit set
  void add(datatypes::Gnss_system system) {
    auto& count = by_system.at(static_cast<std::size_t>(system));
    count = static_cast<std::uint8_t>(std::min(count + 1, 255));
    systems |= 1U << static_cast<unsigned>(system);
  }
  [[nodiscard]] std::uint8_t of(datatypes::Gnss_system system) const {
    return by_system.at(static_cast<std::size_t>(system));
  }
};

struct Sky_count {
  Count in_view;
  Count tracked;
  Count in_use;
};

void fill(datatypes::DT_positionsQuality_struct& record, const Sky_count& count);

/// Adds the satellite to `count`.
[[nodiscard]] datatypes::DT_posGnssSatInfos_struct new_satellite(
    datatypes::Gnss_system system, std::uint32_t id, bool tracked, bool in_use, Sky_count& count);

}  // namespace gateway
