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

constexpr KvsType::Type typeOf(const bool&) {
  return KvsType::Type::kBoolean;
}
constexpr KvsType::Type typeOf(const std::uint32_t&) {
  return KvsType::Type::kUInt32;
}

template <typename T>
void readSetting(Persistency& persistency, const std::string& key, T& setting) {
  const ara::log::Logger& logger = persistency.logger();
  const KvsType value = persistency.getValue(key);
  if (value.GetStatus() != KvsType::Status::kSuccess || value.GetType() != typeOf(setting)) {
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

Settings readSettings(Persistency& persistency) {
  Settings settings{.persistency = persistency};
  readSetting(persistency, "recievedGNSSDataLogging", settings.recievedGNSSDataLogging);
  readSetting(persistency, "ignoreGNSSTimestamps", settings.ignoreGNSSTimestamps);
  readSetting(persistency, "alwaysSendAllValidPositions", settings.alwaysSendAllValidPositions);
  readSetting(persistency, "useGNSSDR", settings.useGNSSDR);
  readSetting(persistency, "mmNewPositionCalculationIntervalMS",
              settings.mmNewPositionCalculationIntervalMS);
  readSetting(persistency, "timeClientEnabled", settings.timeClientEnabled);
  return settings;
}
