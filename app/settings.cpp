#include "app/settings.h"

#include <sstream>
#include <string>

namespace {

using ara::per::KvsType;

void extract(const KvsType& value, bool& setting) {
  setting = value.GetBool();
}
void extract(const KvsType& value, std::uint32_t& setting) {
  setting = value.GetUInt();
}

constexpr KvsType::Type type_of(const bool&) {
  return KvsType::Type::kBoolean;
}
constexpr KvsType::Type type_of(const std::uint32_t&) {
  return KvsType::Type::kUInt32;
}

std::string json_of(bool value) {
  return value ? "true" : "false";
}
std::string json_of(std::uint32_t value) {
  return std::to_string(value);
}

/// Returns whether the value is stored.
template <typename T>
bool read_stored(Persistency& persistency, const std::string& key, T& setting) {
  const ara::log::Logger& logger = persistency.logger();
  const KvsType value = persistency.getValue(key);
  if (value.GetStatus() != KvsType::Status::kSuccess || value.GetType() != type_of(setting)) {
    logger.LogInfo() << "No such entry for " << key;
    return false;
  }
  try {
    extract(value, setting);
  } catch (const ara::per::ExceptionLogicError& error) {
    logger.LogInfo() << "Unable to extract value for key " << key << "\n\t" << error.what();
    return false;
  }
  std::ostringstream text;
  text << setting;
  logger.LogInfo() << "Got entry " << key << "=" << text.str();
  return true;
}

template <typename T>
void read_setting(Settings& settings, const std::string& key, T Settings::*setting) {
  const bool stored = read_stored(settings.persistency, key, settings.*setting);
  settings.in_force.push_back({key, json_of(settings.*setting), stored});
}

}  // namespace

Settings read_settings(Persistency& persistency) {
  Settings settings{.persistency = persistency};
  read_setting(settings, "recievedGNSSDataLogging", &Settings::recievedGNSSDataLogging);
  read_setting(settings, "ignoreGNSSTimestamps", &Settings::ignoreGNSSTimestamps);
  read_setting(settings, "alwaysSendAllValidPositions", &Settings::alwaysSendAllValidPositions);
  read_setting(settings, "useGNSSDR", &Settings::useGNSSDR);
  read_setting(settings, "mmNewPositionCalculationIntervalMS",
               &Settings::mmNewPositionCalculationIntervalMS);
  read_setting(settings, "timeClientEnabled", &Settings::timeClientEnabled);
  return settings;
}
