/// The application's settings in the key-value storage.
#pragma once

#include <cstdint>
#include <vector>

#include "binding/application_state.h"
#include "persistency/Persistency.h"

/// Field names are the keys in the storage.
struct Settings {
  bool recievedGNSSDataLogging = true;      ///< log every received position and quality
  bool ignoreGNSSTimestamps = true;         ///< stamp forwarded positions with the current time
  bool alwaysSendAllValidPositions = true;  ///< publish a position even if it repeats the last one
  bool useGNSSDR = true;                    ///< forward GNSS-DR positions instead of GNSS ones
  std::uint32_t mmNewPositionCalculationIntervalMS = 1000;  ///< between two map-matched positions
  Persistency& persistency;                                 ///< source of the values
  bool timeClientEnabled = false;  ///< monitor and log the Time service, keep its offset
  std::vector<binding::Setting_in_force> in_force{};  ///< each of the above, for tools
};

/// Reads every setting separately. A missing or unreadable setting, or one of another type, keeps
/// its default and is logged in the context of `persistency`.
[[nodiscard]] Settings read_settings(Persistency& persistency);
