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
#include "diagnosisService/monitor_table.h"

namespace {

using diagnosisService::Data_bus_element;
using diagnosisService::DataBusFault;
using diagnosisService::monitor_input_gnss;
using diagnosisService::monitor_input_time;
using diagnosisService::monitor_output_dead_reckoning;
using diagnosisService::sensor_gnss;
using diagnosisService::sensor_time_master;
using diagnosisService::system_map_matching;
using diagnosisService::system_pgf;
using diagnosisService::system_reserved13;

constexpr std::chrono::milliseconds shutdown_poll{500};
constexpr std::uint64_t data_timeout_ms = 5000;

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
  for (const auto byte : {system_map_matching, system_reserved13, system_reserved13, system_pgf}) {
    diagnosisService_.setSystemStatus(byte, diagnosisService::Status::not_available);
  }
  diagnosisService::diagnosisServiceImpl::SensorSetup sensors{};
  sensors[sensor_gnss] = true;
  sensors[sensor_time_master] = settings_->timeClientEnabled;
  diagnosisService_.newSensorSetup(sensors);
  ara::log::LogInfo() << "posApplication startup finished, waiting for shutdown signal, data will "
                         "be processed in receiver threads.";
  auto statistics = binding::offer_statistics();

  while (!shutdown_)
    std::this_thread::sleep_for(shutdown_poll);

  stop();
  statistics.reset();
  executionClient.ReportApplicationState(ara::exec::ApplicationState::kTerminating);
  return 0;
}

void posApplication::start() {
  phmClient_.init();
  diagnosisService_.init(data_timeout_ms);
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
  constexpr const char* received = "posApplication::signalHandler, received sigId =";
  switch (sigId) {
    case SIGUSR1:
      ara::log::LogInfo() << received << sigId << ", switching to state 'kPrepSD'";
      componentClient_->componentStateChangeRequest("kPrepSD", 0);
      break;
    case SIGUSR2:
      ara::log::LogInfo() << received << sigId << ", switching to state 'kOn'";
      componentClient_->componentStateChangeRequest("kOn", 0);
      break;
    default:
      ara::log::LogInfo() << received << sigId << ", starting gracefull shutdown procedure";
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
  gnssClient_.setDataFaultsCallback(
      [this](auto field, const auto& faults) { reportFaults(elementOf(field), faults); });
  gnssClient_.setPositionsQualityCallback(
      [this](const auto&) { diagnosisService_.dataReceived(monitor_input_gnss); });
  gnssClient_.setSatInfosCallback(
      [this](const auto&) { diagnosisService_.dataReceived(monitor_input_gnss); });
  gnssClient_.setPositionCallback(
      [this](const GnssPosition& position) { sendDRPosition(position); });
  gnssClient_.init();
}

void posApplication::sendDRPosition(const GnssPosition& position) {
  ara::log::LogInfo() << "Sending " << (settings_->useGNSSDR ? "GNSS-DR" : "GNSS")
                      << " input position as POS output DR position.";
  posService_.sendDR(to_positioning(position, outputDefaults_));
  const auto now = diagnosisService::diagnosisServiceImpl::Clock::now();
  diagnosisService_.dataReceived(monitor_output_dead_reckoning, now);
  diagnosisService_.dataReceived(monitor_input_gnss, now);
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
  diagnosisService_.dataReceived(monitor_input_time);
}
