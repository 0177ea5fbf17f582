/// State of the application as the Statistics service returns it: its statuses, the faults of the
/// services that it uses, its settings, its log.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace binding {

/// A status byte. diagnosis_values.h has the values of `group` and `status`.
struct Status_age {
  std::uint8_t group = 0;
  std::uint8_t byte = 0;
  std::uint8_t status = 0;
  std::uint64_t sinceMs = 0;
};

/// A fault of a consumed service. diagnosis_values.h has the values of `fault` and `service`.
struct Fault_age {
  std::uint8_t fault = 0;
  std::uint8_t service = 0;
  std::uint8_t element = 0;
  bool present = false;
  std::uint16_t occurrences = 0;
  std::uint64_t sinceMs = 0;
};

struct Diagnosis_state {
  std::vector<Status_age> statuses;
  std::vector<Fault_age> faults;
};

/// A setting as the application read it at its start.
struct Setting_in_force {
  std::string key;
  std::string value;    ///< as JSON
  bool stored = false;  ///< false: nothing usable is stored, the default holds
};

struct Log_context_level {
  std::string context;
  std::string level;  ///< "off", "fatal", "error", "warn", "info", "debug", "verbose"
};

/// A line of the application's log.
struct Log_line {
  std::uint64_t timeUs = 0;  ///< since 1970
  std::string level;
  std::string context;
  std::string text;
};

struct Log_lines {
  std::uint64_t next = 0;  ///< number of the line to ask for next
  std::uint64_t lost = 0;
  std::vector<Log_line> lines;
};

}  // namespace binding
