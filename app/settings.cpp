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

template <typename T>
void read_setting(Persistency& persistency, const std::string& key, T& setting) {
  const ara::log::Logger& logger = persistency.logger();
  const KvsType value = persistency.getValue(key);
  if (value.GetStatus() != KvsType::Status::kSuccess || value.GetType() != type_of(setting)) {
    logger.LogInfo() << "No such entry for " << key;
    return;
  }
  try {
    extract(value, setting);
  } catch (const ara::per::ExceptionLogicError& error) {
    logger.LogInfo() << "Unable to extract value for key " << key << "\n\t" << error.what();
    return;
  }
  std::ostringstream text;
  text << setting;
  logger.LogInfo() << "Got entry " << key << "=" << text.str();
}

}  // namespace

Settings read_settings(Persistency& persistency) {
  Settings settings{.persistency = persistency};
  read_setting(persistency, "recievedGNSSDataLogging", settings.recievedGNSSDataLogging);
  read_setting(persistency, "ignoreGNSSTimestamps", settings.ignoreGNSSTimestamps);
  read_setting(persistency, "alwaysSendAllValidPositions", settings.alwaysSendAllValidPositions);
  read_setting(persistency, "useGNSSDR", settings.useGNSSDR);
  read_setting(persistency, "mmNewPositionCalculationIntervalMS",
               settings.mmNewPositionCalculationIntervalMS);
  read_setting(persistency, "timeClientEnabled", settings.timeClientEnabled);
  return settings;
}
