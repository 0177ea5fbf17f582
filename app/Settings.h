/// What of the application's behaviour can be set in the key-value storage.
#pragma once

#include <cstdint>

#include "persistency/Persistency.h"

/// Field names are the keys in the storage.
struct Settings {
  bool recievedGNSSDataLogging = true;      ///< log every received position and quality
  bool ignoreGNSSTimestamps = true;         ///< stamp forwarded positions with the current time
  bool alwaysSendAllValidPositions = true;  ///< publish a position that repeats the last one too
  bool useGNSSDR = true;                    ///< forward GNSS-DR positions instead of GNSS ones
  std::uint32_t mmNewPositionCalculationIntervalMS = 1000;  ///< between two map-matched positions
  Persistency& persistency;                                 ///< where the values come from
  bool timeClientEnabled = false;  ///< monitor and log the Time service, keep its offset
};

/// Reads every setting, each by itself: one that is missing, of another type or unreadable keeps
/// its default and is logged in the context of `persistency`.
[[nodiscard]] Settings readSettings(Persistency& persistency);
