/// The settings of the application: the keys that posctl knows, with type, default and meaning.
#pragma once

#include <array>
#include <string_view>

namespace posctl {

struct Setting {
  std::string_view key;
  std::string_view type;   ///< as in the store
  std::string_view usual;  ///< the default, as JSON
  std::string_view meaning;
};

/// The application reads each once, at its start.
inline constexpr std::array setting_table{
    Setting{"recievedGNSSDataLogging", "Boolean", "true",
            "each received position and quality record is a line of the log"},
    Setting{"ignoreGNSSTimestamps", "Boolean", "true",
            "a forwarded position gets the current time instead of its own"},
    Setting{"alwaysSendAllValidPositions", "Boolean", "true",
            "off: a position that repeats the previous one is not sent"},
    Setting{"useGNSSDR", "Boolean", "true",
            "on: positions of the type GNSS-DR are forwarded; off: those of the type GNSS"},
    Setting{"mmNewPositionCalculationIntervalMS", "UInt32", "1000",
            "milliseconds that must pass before a position is also sent in posMapInfo"},
    Setting{"timeClientEnabled", "Boolean", "false",
            "the Time service is subscribed to and monitored"}};

}  // namespace posctl
