#include "app/posApplication.h"

#include <signal.h>

#include <chrono>
#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

#include "ara/exec/application_client.h"
#include "ara/log/logger.h"
#include "binding/statistics.h"
#include "clients/timeutils.h"
#include "diagnosisService/MonitorTable.h"

namespace {

using diagnosisService::Data_bus_element;
using diagnosisService::DataBusFault;
using diagnosisService::kMonitorInputGnss;
using diagnosisService::kMonitorInputTime;
using diagnosisService::kMonitorOutputDeadReckoning;
using diagnosisService::kSensorGnss;
using diagnosisService::kSensorTimeMaster;
using diagnosisService::kSystemMapMatching;
using diagnosisService::kSystemPgf;
using diagnosisService::kSystemReserved13;

constexpr std::chrono::milliseconds kShutdownPoll{500};
constexpr std::uint64_t kDataTimeoutMs = 5000;

Data_bus_element elementOf(gnssClient::gnssClientImpl::Field field) {
  using Field = gnssClient::gnssClientImpl::Field;
  switch (field) {
    case Field::positions:
      return Data_bus_element::GNSS_positions;
    case Field::positionsQuality:
      return Data_bus_element::GNSS_positionsQuality;
    case Field::posGnssSatInfos:
      break;
  }
  return Data_bus_element::GNSS_posGnssSatInfos;
}

}  // namespace

posApplication::posApplication(Persistency persistency)
    : persistency_(std::move(persistency)), posService_(diagnosisService_) {
  settings_.emplace(readSettings(persistency_));
  gnssClient_.setRecievedGNSSDataLogging(settings_->recievedGNSSDataLogging);
  gnssClient_.setIgnoreGNSSTimestamps(settings_->ignoreGNSSTimestamps);
  gnssClient_.setUseGNSSDR(settings_->useGNSSDR);
  posService_.setAlwaysSendAllValidPositions(settings_->alwaysSendAllValidPositions);
  posService_.setMmNewPositionCalculationIntervalMS(settings_->mmNewPositionCalculationIntervalMS);
  // This application needs no time before a shutdown.
  componentClient_.emplace(&persistency_, [] { return true; });
}

posApplication::~posApplication() {
  gnssClient_.stop();
}

int posApplication::run() {
  const ara::exec::ApplicationClient executionClient;
  executionClient.ReportApplicationState(ara::exec::ApplicationState::kRunning);
  start();

  // The order is fixed and contains byte 13 twice.
  for (const auto byte : {kSystemMapMatching, kSystemReserved13, kSystemReserved13, kSystemPgf}) {
    diagnosisService_.setSystemStatus(byte, diagnosisService::kNotAvailable);
  }
  diagnosisService::diagnosisServiceImpl::SensorSetup sensors{};
  sensors[kSensorGnss] = true;
  sensors[kSensorTimeMaster] = settings_->timeClientEnabled;
  diagnosisService_.newSensorSetup(sensors);
  ara::log::LogInfo() << "posApplication startup finished, waiting for shutdown signal, data will "
                         "be processed in receiver threads.";
  auto statistics = binding::offer_statistics(ages_, clock_);

  for (bool secondHalf = false; !shutdown_; secondHalf = !secondHalf) {
    std::this_thread::sleep_for(kShutdownPoll);
    if (secondHalf) eachSecond();
  }

  stop();
  statistics.reset();
  executionClient.ReportApplicationState(ara::exec::ApplicationState::kTerminating);
  return 0;
}

void posApplication::eachSecond() {
  clock_.look();
  const auto before = std::chrono::system_clock::now().time_since_epoch();
  const auto base = timeutils::instance().now();
  const auto after = std::chrono::system_clock::now().time_since_epoch();
  // The three readings take time: a time base that lies between them is the system clock.
  const bool same = before <= base && base <= after;
  ages_.each_second(same ? std::chrono::nanoseconds{} : base - before);
}

void posApplication::start() {
  phmClient_.init();
  diagnosisService_.init(kDataTimeoutMs);
  diagnosisService_.startMonitors();
  namespace status = lumo::services::positioning::datatypes::position_status;
  outputDefaults_ = {status::position, status::altitude, status::yaw_angle,   status::speed,
                     status::attitude, status::time,     status::map_matching};
  posService_.init();
  initGnssClient();
  if (settings_->timeClientEnabled) initTimemasterClient();
}

void posApplication::stop() {
  posService_.stop();
  gnssClient_.stop();
  diagnosisService_.stop();
  phmClient_.stop();
  timemasterClient_.stop();
}

void posApplication::signalHandler(int sigId) {
  constexpr const char* kReceived = "posApplication::signalHandler, received sigId =";
  switch (sigId) {
    case SIGUSR1:
      ara::log::LogInfo() << kReceived << sigId << ", switching to state 'kPrepSD'";
      componentClient_->componentStateChangeRequest("kPrepSD", 0);
      break;
    case SIGUSR2:
      ara::log::LogInfo() << kReceived << sigId << ", switching to state 'kOn'";
      componentClient_->componentStateChangeRequest("kOn", 0);
      break;
    default:
      ara::log::LogInfo() << kReceived << sigId << ", starting gracefull shutdown procedure";
      shutdown_ = true;
      diagnosisService_.stop();
      break;
  }
}

void posApplication::reportFaults(Data_bus_element field, const clients::Data_faults& faults) {
  diagnosisService_.setDataBusFault(DataBusFault::errorValueReceived, field, faults.error_value);
  diagnosisService_.setDataBusFault(DataBusFault::implausible, field, faults.implausible);
}

void posApplication::initGnssClient() {
  diagnosisService_.requireService(Data_bus_element::GNSS);
  gnssClient_.setAvailabilityCallback([this](bool available) {
    diagnosisService_.setDataBusFault(DataBusFault::notAvailable, Data_bus_element::GNSS,
                                      !available);
  });
  gnssClient_.setPositionAges(ages_);
  gnssClient_.setDataFaultsCallback(
      [this](auto field, const auto& faults) { reportFaults(elementOf(field), faults); });
  gnssClient_.setPositionsQualityCallback(
      [this](const auto&) { diagnosisService_.dataReceived(kMonitorInputGnss); });
  gnssClient_.setSatInfosCallback(
      [this](const auto&) { diagnosisService_.dataReceived(kMonitorInputGnss); });
  gnssClient_.setPositionCallback(
      [this](const GnssPosition& position) { sendDRPosition(position); });
  gnssClient_.init();
}

void posApplication::sendDRPosition(const GnssPosition& position) {
  ara::log::LogInfo() << "Sending " << (settings_->useGNSSDR ? "GNSS-DR" : "GNSS")
                      << " input position as POS output DR position.";
  if (posService_.sendDR(to_positioning(position, outputDefaults_))) {
    ages_.sent(timeutils::instance().now());
  }
  const auto now = diagnosisService::diagnosisServiceImpl::Clock::now();
  diagnosisService_.dataReceived(kMonitorOutputDeadReckoning, now);
  diagnosisService_.dataReceived(kMonitorInputGnss, now);
}

void posApplication::initTimemasterClient() {
  diagnosisService_.requireService(Data_bus_element::Time);
  timemasterClient_.setAvailabilityCallback([this](bool available) {
    diagnosisService_.setDataBusFault(DataBusFault::notAvailable, Data_bus_element::Time,
                                      !available);
  });
  timemasterClient_.setDataFaultsCallback(
      [this](const auto& faults) { reportFaults(Data_bus_element::Time_times, faults); });
  timemasterClient_.setTimesCallback([this](const Times& times) { receiveTimes(times); });
  timemasterClient_.init();
}

void posApplication::receiveTimes(const Times& times) {
  {
    auto line = ara::log::LogInfo();
    line << "Times struct received from Timemaster: ";
    times.type ? line << static_cast<std::uint32_t>(*times.type) : line << "type missing, ";
    times.pltOffset ? line << *times.pltOffset : line << "pltOffset missing";
  }
  if (times.type == lumo::services::time::datatypes::Time_type::platform && times.pltOffset) {
    timeutils::instance().setOffset(*times.pltOffset / 1000);
  }
  diagnosisService_.dataReceived(kMonitorInputTime);
}
