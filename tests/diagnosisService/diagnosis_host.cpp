/// The diagnosis service alone in a process, on the real network, for tests that play the tester
/// and the event manager. Commands on standard input, each answered with one line:
///   data <identifier> | system <byte> <status> | position | fault | stop
#include <iostream>
#include <sstream>
#include <string>

#include "diagnosisService/diagnosisServiceImpl.h"
#include "mw/com/runtime.h"
#include "posService/PositioningRecords.h"

namespace {

using namespace diagnosisService;

void obey(diagnosisServiceImpl& service, const std::string& line) {
  std::istringstream words{line};
  std::string command;
  words >> command;
  if (command == "data") {
    std::uint32_t identifier = 0;
    words >> std::hex >> identifier;
    service.dataReceived(identifier);
  } else if (command == "system") {
    std::size_t byte = 0;
    unsigned status = 0;
    words >> byte >> status;
    service.setSystemStatus(byte, static_cast<std::uint8_t>(status));
  } else if (command == "position") {
    lumo::services::positioning::datatypes::DT_positions_struct position;
    position.LAT = 48.137154;
    position.LON = -11.576124;
    position.altitudeMeanSeaLevel = 519.25F;
    lumo::services::positioning::datatypes::DT_posMapInfo_struct info;
    info.statusMapMatching = 2;
    info.statusMap = 3;
    info.positionSource = 4;
    info.preciseLocalTimeSeconds = 1'700'000'000;
    info.preciseLocalTimeNanoseconds = 250'000'000;
    service.refreshMapMatchedPosition(position, info);
  } else if (command == "fault") {
    service.setDataBusFault(DataBusFault::notAvailable, DataBusElement::GNSS, true);
    service.setDataBusFault(DataBusFault::errorValueReceived, DataBusElement::GNSS_positions, true);
    service.setDataBusFault(DataBusFault::implausible, DataBusElement::Time_times, true);
    service.setDataBusFault(DataBusFault::implausible, DataBusElement::Time_times, false);
  } else if (command == "stop") {
    service.stop();
  } else {
    throw std::invalid_argument{"unknown command: " + line};
  }
}

}  // namespace

/// Argument: the time-out in milliseconds.
int main(int argc, char** argv) try {
  if (argc != 2) throw std::invalid_argument{"expected the time-out in milliseconds"};
  const mw::com::runtime::Component_singleton runtime{"", false};
  diagnosisServiceImpl service;
  service.init(std::stoull(argv[1]));
  service.startMonitors();
  service.setSystemStatus(12, 3);
  service.setSystemStatus(13, 3);
  service.setSystemStatus(1, 3);
  service.newSensorSetup({true, false, false, false, false, false, false, false, true});
  std::cout << "ready" << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    obey(service, line);
    std::cout << "ok" << std::endl;
  }
  return 0;
} catch (const std::exception& error) {
  std::cerr << error.what() << std::endl;
  return 1;
}
