/// A second application: it consumes the Positioning service and provides the Geofence service.
#include <signal.h>

#include <cmath>
#include <exception>
#include <iostream>
#include <memory>
#include <numbers>
#include <string>
#include <string_view>

#include "Geofence.h"
#include "ara/core/initialization.h"
#include "ara/exec/application_client.h"
#include "ara/log/logger.h"
#include "ara/per/key_value_storage.h"
#include "binding/interface_description.h"
#include "mw/com/runtime.h"
#include "posService/Positioning.h"

namespace {

using ara::log::LogInfo;
using ara::per::KvsType;
using example::geofence::Side;
using lumo::services::positioning::proxy::PositioningProxy;

/// The first attempt creates the folder of the store if it is missing.
std::unique_ptr<ara::per::KeyValueStorage> open_store() {
  constexpr auto port = "Geofence_Key_Value_Port";
  try {
    return std::make_unique<ara::per::KeyValueStorage>(port);
  } catch (const ara::per::ExceptionStorageLocationNotFound& error) {
    LogInfo() << error.what();
    return std::make_unique<ara::per::KeyValueStorage>(port);
  }
}

/// The circle, from the settings. A setting that is missing gets its default and is stored.
struct Fence {
  explicit Fence(ara::per::KeyValueStorage& store)
      : latitude(setting(store, "latitude", 46.948)),
        longitude(setting(store, "longitude", 7.4474)),
        radius(setting(store, "radius", 2000.0)) {
    store.SyncToStorage();
  }

  static double setting(ara::per::KeyValueStorage& store, const std::string& key, double initial) {
    if (!store.HasKey(key)) store.SetValue(key, KvsType(initial));
    return store.GetValue(key).GetDouble();
  }
  /// In metres, on a plane.
  [[nodiscard]] double distance_to(double to_latitude, double to_longitude) const {
    constexpr double radian = std::numbers::pi / 180;
    constexpr double earth = 6371000;
    const double north = (to_latitude - latitude) * radian;
    const double east = (to_longitude - longitude) * radian * std::cos(latitude * radian);
    return earth * std::hypot(north, east);
  }

  const double latitude, longitude, radius;
};

class Application {
 public:
  Application() : fence_(*open_store()) {
    LogInfo() << "The circle has a radius of" << fence_.radius << "m";
    service_.OfferService();
    search_ = PositioningProxy::StartFindService(
        [this](const auto& found, ara::com::FindServiceHandle) { connect(found); });
  }
  ~Application() {
    PositioningProxy::StopFindService(search_);
    proxy_.reset();
  }
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

 private:
  /// Each change of the offers, on a worker, one call at a time.
  void connect(const ara::com::ServiceHandleContainer<PositioningProxy::Handle_type>& found) {
    LogInfo() << "Positioning has" << found.size() << "instances";
    proxy_.reset();
    if (found.empty()) return;
    proxy_ = std::make_unique<PositioningProxy>(found.front());
    auto& positions = proxy_->positions;
    positions.SetReceiveHandler([this, &positions] {
      positions.GetNewSamples([this](const auto& sample) {
        for (const auto& position : *sample)
          if (position.LAT && position.LON) take(*position.LAT, *position.LON);
      });
    });
    positions.Subscribe(4);
  }

  /// On a worker, one call at a time.
  void take(double latitude, double longitude) {
    const double distance = fence_.distance_to(latitude, longitude);
    const Side side = distance <= fence_.radius ? Side::inside : Side::outside;
    if (state_.side != side) {
      if (state_.side) state_.crossings = *state_.crossings + 1;
      LogInfo() << "The vehicle is" << binding::name_of(side) << "at" << distance << "m";
    }
    state_.side = side;
    state_.distance = distance;
    service_.state.Update(state_);
  }

  const Fence fence_;
  example::geofence::State state_{.side = {}, .distance = {}, .crossings = 0};
  example::geofence::Geofence_skeleton service_{
      ara::core::InstanceSpecifier("Geofence_ProvidedSomeipServiceInstance")};
  std::unique_ptr<PositioningProxy> proxy_;
  ara::com::FindServiceHandle search_{};
};

int run() {
  // Before the first thread: only sigwait() below takes these signals.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
  ara::log::InitLogging("GEOF", "Geofence", ara::log::LogLevel::kInfo, ara::log::LogMode::kRemote,
                        "");
  const mw::com::runtime::Component_singleton runtime("", false);
  const ara::exec::ApplicationClient execution;
  const Application application;
  execution.ReportApplicationState(ara::exec::ApplicationState::kRunning);
  int signal = 0;
  sigwait(&stop, &signal);
  LogInfo() << "Signal" << signal << "ends the application";
  execution.ReportApplicationState(ara::exec::ApplicationState::kTerminating);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  ara::core::Initialize({.name = "geofence"});
  if (argc == 2 && argv[1] == std::string_view("--describe")) {
    std::cout << binding::interfaces_as_json<example::geofence::Geofence>();
    return 0;
  }
  try {
    return run();
  } catch (const std::exception& error) {
    ara::log::LogFatal() << error.what();
    return 1;
  }
}
