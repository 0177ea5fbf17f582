/// The application object: owns every part, starts and stops them in order, and carries positions
/// from the GNSS client to the Positioning service.
#pragma once

#include <atomic>
#include <optional>

#include "app/ComponentClientWrapper.h"
#include "app/Settings.h"
#include "app/application_instance.h"
#include "app/conversion.h"
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
  using GnssPosition = lumo::services::gnss::datatypes::DT_positions_struct;
  using Times = lumo::services::time::datatypes::DT_times_struct;

  void start();
  void stop();
  void initGnssClient();
  void initTimemasterClient();
  /// Looks at the machine's clock and ends a second of the ages.
  void eachSecond();

  void reportFaults(diagnosisService::Data_bus_element field, const clients::Data_faults& faults);

  // Called on threads of the middleware, after the last change of settings_ and outputDefaults_.
  void sendDRPosition(const GnssPosition& position);
  void receiveTimes(const Times& times);

  Persistency persistency_;
  binding::Position_ages ages_;
  mw::com::runtime::Clock_watch clock_;
  gnssClient::gnssClientImpl gnssClient_;
  diagnosisService::diagnosisServiceImpl diagnosisService_;
  posServiceImpl posService_;
  phmClient::phmClientImpl phmClient_{ara::core::InstanceSpecifier(kApplicationInstance)};
  TimemasterClient::TimemasterClientImpl timemasterClient_;
  Output_defaults outputDefaults_{};
  std::atomic<bool> shutdown_{false};  ///< set by signalHandler, polled by run()
  std::optional<Settings> settings_;
  std::optional<ComponentClientWrapper> componentClient_;
};
