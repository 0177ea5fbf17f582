/// The application object: owns every part, starts and stops them in order, and carries positions
/// from the GNSS client to the Positioning service.
#pragma once

#include <atomic>

#include "app/ComponentClientWrapper.h"
#include "app/application_instance.h"
#include "app/conversion.h"
#include "app/settings.h"
#include "binding/position_ages.h"
#include "clients/TimemasterClientImpl.h"
#include "clients/gnssClientImpl.h"
#include "diagnosisService/diagnosisServiceImpl.h"
#include "mw/com/statistics.h"
#include "persistency/Persistency.h"
#include "phm/phmClientImpl.h"
#include "posService/posServiceImpl.h"

class posApplication {
 public:
  /// Reads the settings and connects to state management; starts nothing else. The middleware's
  /// runtime must exist and outlive this object.
  explicit posApplication(Persistency persistency);
  /// Even if run() throws, no callback reaches a destroyed member.
  ~posApplication();
  posApplication(const posApplication&) = delete;
  posApplication& operator=(const posApplication&) = delete;

  /// Starts everything. Returns when everything has stopped after a shutdown signal. The result is
  /// the process's exit code, 0.
  int run();

  /// SIGUSR1 and SIGUSR2 request the states "kPrepSD" and "kOn", every other number the shutdown.
  /// Any thread may call, even while run() starts or stops.
  void signalHandler(int sigId);

 private:
  using Gnss_position = lumo::services::gnss::datatypes::DT_positions_struct;
  using Times = lumo::services::time::datatypes::DT_times_struct;

  void start();
  void stop();
  void initGnssClient();
  void initTimemasterClient();
  /// Looks at the machine's clock and ends a second of the ages.
  void each_second();

  void report_faults(diagnosisService::Data_bus_element field, const clients::Data_faults& faults);

  // Called on threads of the middleware, after the last change of output_defaults_.
  void sendDRPosition(const Gnss_position& position);
  void receive_times(const Times& times);

  Persistency persistency_;
  binding::Position_ages ages_;
  mw::com::runtime::Clock_watch clock_;
  gnssClient::gnssClientImpl gnss_client_;
  diagnosisService::diagnosisServiceImpl diagnosis_service_;
  posServiceImpl pos_service_;
  phmClient::phmClientImpl phm_client_{ara::core::InstanceSpecifier(application_instance)};
  TimemasterClient::TimemasterClientImpl timemaster_client_;
  Output_defaults output_defaults_{};
  std::atomic<bool> shutdown_{false};  ///< set by signalHandler, polled by run()
  const Settings settings_;
  ComponentClientWrapper component_client_;
};
