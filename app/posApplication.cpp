#include "app/posApplication.h"

#include <signal.h>

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "ara/exec/application_client.h"
#include "ara/log/logger.h"
#include "binding/statistics.h"
#include "binding/time_base.h"
#include "clients/timeutils.h"
#include "diagnosisService/monitor_table.h"

namespace {

using diagnosisService::Data_bus_element;
using diagnosisService::Data_bus_fault;
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

Data_bus_element element_of(gnssClient::gnssClientImpl::Field field) {
  using Field = gnssClient::gnssClientImpl::Field;
  switch (field) {
    case Field::positions:
      return Data_bus_element::gnss_positions;
    case Field::positionsQuality:
      return Data_bus_element::gnss_positions_quality;
    case Field::posGnssSatInfos:
      break;
  }
  return Data_bus_element::gnss_pos_gnss_sat_infos;
}

}  // namespace

posApplication::posApplication(Persistency persistency)
    : persistency_(std::move(persistency)),
      pos_service_(diagnosis_service_),
      settings_(read_settings(persistency_)),
      // This application needs no time before a shutdown.
      component_client_(&persistency_, [] { return true; }) {
  gnss_client_.set_received_gnss_data_logging(settings_.recievedGNSSDataLogging);
  gnss_client_.set_ignore_gnss_timestamps(settings_.ignoreGNSSTimestamps);
  gnss_client_.set_use_gnss_dr(settings_.useGNSSDR);
  pos_service_.set_always_send_all_valid_positions(settings_.alwaysSendAllValidPositions);
  pos_service_.set_mm_new_position_calculation_interval_ms(
      settings_.mmNewPositionCalculationIntervalMS);
}

posApplication::~posApplication() {
  gnss_client_.stop();
}

int posApplication::run() {
  const ara::exec::ApplicationClient execution_client;
  execution_client.ReportApplicationState(ara::exec::ApplicationState::kRunning);
  start();

  // The order is fixed and contains byte 13 twice.
  for (const auto byte : {system_map_matching, system_reserved13, system_reserved13, system_pgf}) {
    diagnosis_service_.set_system_status(byte, diagnosisService::Status::not_available);
  }
  diagnosisService::diagnosisServiceImpl::Sensor_setup sensors{};
  sensors[sensor_gnss] = true;
  sensors[sensor_time_master] = settings_.timeClientEnabled;
  diagnosis_service_.new_sensor_setup(sensors);
  ara::log::LogInfo() << "posApplication startup finished, waiting for shutdown signal, data will "
                         "be processed in receiver threads.";
  auto statistics =
      binding::offer_statistics({.ages = ages_,
                                 .clock = clock_,
                                 .diagnosis = [this] { return diagnosis_service_.state(); },
                                 .settings = settings_.in_force});

  for (bool second_half = false; !shutdown_; second_half = !second_half) {
    std::this_thread::sleep_for(shutdown_poll);
    if (second_half) each_second();
  }

  stop();
  statistics.reset();
  execution_client.ReportApplicationState(ara::exec::ApplicationState::kTerminating);
  return 0;
}

void posApplication::each_second() {
  clock_.look();
  ages_.each_second();
  try {
    ages_.set_base_ahead(binding::lead_of([] { return timeutils::instance().now(); }));
  } catch (const std::runtime_error&) {
    // The clock behind the time base is gone. The next position that needs it reports that.
  }
}

void posApplication::start() {
  each_second();
  phm_client_.init();
  diagnosis_service_.init(data_timeout_ms);
  diagnosis_service_.start_monitors();
  namespace status = lumo::services::positioning::datatypes::position_status;
  output_defaults_ = {status::position, status::altitude, status::yaw_angle,   status::speed,
                      status::attitude, status::time,     status::map_matching};
  pos_service_.init();
  initGnssClient();
  if (settings_.timeClientEnabled) initTimemasterClient();
}

void posApplication::stop() {
  pos_service_.stop();
  gnss_client_.stop();
  diagnosis_service_.stop();
  phm_client_.stop();
  timemaster_client_.stop();
}

void posApplication::signalHandler(int sigId) {
  constexpr const char* received = "posApplication::signalHandler, received sigId =";
  switch (sigId) {
    case SIGUSR1:
      ara::log::LogInfo() << received << sigId << ", switching to state 'kPrepSD'";
      component_client_.componentStateChangeRequest("kPrepSD", 0);
      break;
    case SIGUSR2:
      ara::log::LogInfo() << received << sigId << ", switching to state 'kOn'";
      component_client_.componentStateChangeRequest("kOn", 0);
      break;
    default:
      ara::log::LogInfo() << received << sigId << ", starting gracefull shutdown procedure";
      shutdown_ = true;
      diagnosis_service_.stop();
      break;
  }
}

void posApplication::report_faults(Data_bus_element field, const clients::Data_faults& faults) {
  diagnosis_service_.set_data_bus_fault(Data_bus_fault::error_value_received, field,
                                        faults.error_value);
  diagnosis_service_.set_data_bus_fault(Data_bus_fault::implausible, field, faults.implausible);
}

void posApplication::initGnssClient() {
  diagnosis_service_.require_service(Data_bus_element::gnss);
  gnss_client_.set_availability_callback([this](bool available) {
    diagnosis_service_.set_data_bus_fault(Data_bus_fault::not_available, Data_bus_element::gnss,
                                          !available);
  });
  gnss_client_.set_position_ages(ages_);
  gnss_client_.set_data_faults_callback(
      [this](auto field, const auto& faults) { report_faults(element_of(field), faults); });
  gnss_client_.set_positions_quality_callback(
      [this](const auto&) { diagnosis_service_.data_received(monitor_input_gnss); });
  gnss_client_.set_sat_infos_callback(
      [this](const auto&) { diagnosis_service_.data_received(monitor_input_gnss); });
  gnss_client_.set_position_callback(
      [this](const Gnss_position& position) { sendDRPosition(position); });
  gnss_client_.init();
}

void posApplication::sendDRPosition(const Gnss_position& position) {
  ara::log::LogInfo() << "Sending " << (settings_.useGNSSDR ? "GNSS-DR" : "GNSS")
                      << " input position as POS output DR position.";
  if (pos_service_.send_dr(to_positioning(position, output_defaults_))) {
    ages_.sent(timeutils::instance().now());
  }
  const auto now = diagnosisService::diagnosisServiceImpl::Clock::now();
  diagnosis_service_.data_received(monitor_output_dead_reckoning, now);
  diagnosis_service_.data_received(monitor_input_gnss, now);
}

void posApplication::initTimemasterClient() {
  diagnosis_service_.require_service(Data_bus_element::time);
  timemaster_client_.set_availability_callback([this](bool available) {
    diagnosis_service_.set_data_bus_fault(Data_bus_fault::not_available, Data_bus_element::time,
                                          !available);
  });
  timemaster_client_.set_data_faults_callback(
      [this](const auto& faults) { report_faults(Data_bus_element::time_times, faults); });
  timemaster_client_.set_times_callback([this](const Times& times) { receive_times(times); });
  timemaster_client_.init();
}

void posApplication::receive_times(const Times& times) {
  {
    auto line = ara::log::LogInfo();
    line << "Times struct received from Timemaster: ";
    times.type ? line << static_cast<std::uint32_t>(*times.type) : line << "type missing, ";
    times.pltOffset ? line << *times.pltOffset : line << "pltOffset missing";
  }
  if (times.type == lumo::services::time::datatypes::Time_type::platform && times.pltOffset) {
    timeutils::instance().set_offset(*times.pltOffset / 1000);
  }
  diagnosis_service_.data_received(monitor_input_time);
}
