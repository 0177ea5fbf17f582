/// The types of sentences that the reader understands.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace nmea {

/// The position sentences stand first, in the order of Navigation_type.
enum class Sentence_type : std::uint8_t {
  gga,
  gns,
  rmc,
  gll,
  vtg,
  pubx,
  zda,
  gst,
  gbs,
  hdt,
  ths,
  pashr,
  gsa,
  gsv,
  txt
};

inline constexpr std::array<std::string_view, 15> sentence_type_names{
    "GGA", "GNS", "RMC", "GLL",   "VTG", "PUBX,00", "ZDA", "GST",
    "GBS", "HDT", "THS", "PASHR", "GSA", "GSV",     "TXT"};

}  // namespace nmea
