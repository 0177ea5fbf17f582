/// The diagnosis service without a network. The test plays its callers, and time.
#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "diagnosisService/diagnosisServiceImpl.h"
#include "tests/support/capture.h"
#include "tests/support/fake_runtime.h"

namespace diagnosisService {

using namespace std::chrono_literals;
using Clock = diagnosisServiceImpl::Clock;
using Bytes = Fake_runtime::Bytes;

inline constexpr std::uint32_t gnss = 0x83D101;
inline constexpr std::uint64_t hour_ms = 3'600'000;

/// Some time of this boot that no real clock disturbs: the service under test evaluates by itself
/// every 360 s only.
inline constexpr Clock::time_point start{100h};

inline const std::string provided = "_ProvidedSomeipServiceInstance";
inline const Bytes no_meta_info{0, 0, 0, 0};

class Diagnosis : public ::testing::Test {
 protected:
  Bytes read(const std::string& identifier) {
    const auto response =
        runtime.call("DataIdentifier_" + identifier + provided, "Read", no_meta_info);
    EXPECT_EQ(response.code, tq::com::Return_code::ok);
    Bytes bytes;
    for (const auto byte : response.payload)
      bytes.push_back(std::to_integer<std::uint8_t>(byte));
    return bytes;
  }
  Bytes inputs() { return read("PositioningStatusInputs"); }
  Bytes outputs() { return read("PositioningStatusOutputs"); }

  void init_monitor(const std::string& monitor, std::uint8_t reason) {
    const auto response = runtime.call("DiagnosticMonitor_" + monitor, "InitMonitor", {reason});
    EXPECT_EQ(response.code, tq::com::Return_code::ok);
  }
  std::vector<Bytes> actions(const std::string& monitor) {
    return runtime.sent("DiagnosticMonitor_" + monitor);
  }

  /// All sensors off but GNSS, everything offered, log emptied.
  void run_with_gnss() {
    service->init(hour_ms);
    service->start_monitors();
    service->set_system_status(system_map_matching, Status::not_available);
    service->set_system_status(system_pgf, Status::not_available);
    service->new_sensor_setup({true});
    log.clear();
  }
  void bring_gnss_into_error() {
    service->data_received(gnss, start);
    service->evaluate(start);
    service->evaluate(start + 1h + 1ns);
    ASSERT_EQ(service->status(gnss), Status::error);
    log.clear();
  }

  test::Capture log;
  Fake_runtime runtime;
  std::unique_ptr<diagnosisServiceImpl> service = std::make_unique<diagnosisServiceImpl>();
};

}  // namespace diagnosisService
