/// Brings about the log lines that no run of the application does: failures of what does not fail
/// there, calls that it never makes. The classes, the log and the network are the application's.
///   log_texts_host exit-code   the application, whose work ends with code 3
///   log_texts_host classes     one class after the other; the binding's stay until standard input
///                              ends, for peers
/// What cannot fail by itself is made to by the linker, which leads calls of the functions named in
/// CMakeLists.txt to those named __wrap_… here.
#include <cstdlib>
#include <iostream>
#include <string>

#include "app/identity.h"
#include "app/posApplication.h"
#include "app/pos_main.h"
#include "app/settings.h"
#include "binding/trace_records.h"
#include "diagnosisService/diagnosisServiceImpl.h"
#include "mw/com/cpp_binding/log.h"
#include "mw/com/runtime.h"
#include "phm/phm_timer.h"
#include "posService/Positioning.h"
#include "posService/posServiceImpl.h"

namespace {

bool extraction_fails = false;
Persistency* forbidden_meanwhile = nullptr;

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names
extern "C" {

int __wrap__ZN14posApplication3runEv(posApplication*) {
  return 3;
}

bool __real__ZNK3ara3per7KvsType7GetBoolEv(const ara::per::KvsType* value);
bool __wrap__ZNK3ara3per7KvsType7GetBoolEv(const ara::per::KvsType* value) {
  if (extraction_fails) throw ara::per::ExceptionLogicError("not a Boolean");
  return __real__ZNK3ara3per7KvsType7GetBoolEv(value);
}

/// The value of a blob is made between its first entry and its second.
void __real__ZN3ara3per7KvsTypeC1EPKhm(void* value, const std::uint8_t* data, std::size_t size);
void __wrap__ZN3ara3per7KvsTypeC1EPKhm(void* value, const std::uint8_t* data, std::size_t size) {
  if (forbidden_meanwhile != nullptr) forbidden_meanwhile->setStoringAllowed(false);
  __real__ZN3ara3per7KvsTypeC1EPKhm(value, data, size);
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace {

using ara::per::KvsType;
using lumo::services::gnss::proxy::GNSSProxy;

void settings() {
  Persistency persistency("POS_Key_Value_Port",
                          ara::log::CreateLogger("DBAC", "Persistency access"));
  extraction_fails = true;
  static_cast<void>(read_settings(persistency));
  extraction_fails = false;
}

void storing() {
  Persistency persistency("Another_Port", ara::log::CreateLogger("DBAC", "Persistency access"));
  auto& store = persistency.gateway();
  const auto save = [&](const std::string& key) {
    static_cast<void>(persistency.controlledSaveBinaryData({1, 2}, key));
  };
  const auto read = [&](const std::string& key) {
    static_cast<void>(persistency.controlledReadBinaryData(key));
  };
  const auto put = [&](std::uint64_t before, std::uint64_t after) {
    store.setValue("bbeforeRW", KvsType(before));
    store.setValue("bafterRW", KvsType(after));
  };
  read("b");
  save("b");
  read("b");
  put(10, 12);
  read("b");
  put(1, 1);  // less than there is
  read("b");
  persistency.remove("b");
  persistency.setStoringAllowed(false);
  persistency.remove("b");
  save("b");
  persistency.setStoringAllowed(true);
  forbidden_meanwhile = &persistency;
  save("c");
  forbidden_meanwhile = nullptr;
  persistency.setStoringAllowed(true);
  store.setValue("signed", KvsType(std::int32_t{-1}));
  store.fill_table();
  save("d");
}

void timers() {
  std::atomic<int> calls{0};
  Phm_timer failing([&] {
    if (calls++ == 0) {
      calls.notify_all();
      throw std::runtime_error("no checkpoint");
    }
  });
  failing.start(std::chrono::milliseconds{1}, std::chrono::milliseconds{0});
  calls.wait(0);
  failing.stop();
#ifndef __SANITIZE_THREAD__  // which takes a thread whose join failed for joined
  Phm_timer* itself = nullptr;
  std::promise<void> known;
  Phm_timer joining([&, may_go_on = known.get_future().share()] {
    may_go_on.wait();
    itself->stop();
  });
  joining.start(std::chrono::milliseconds{0}, std::chrono::milliseconds{0});
  itself = &joining;
  known.set_value();
#endif
}

void positions() {
  diagnosisService::diagnosisServiceImpl diagnosis;
  posServiceImpl(diagnosis).update_positions(1000.0, -11.25);
}

void monitors() {
  constexpr std::uint32_t dead_reckoning = 0x83D104;
  diagnosisService::diagnosisServiceImpl service;
  service.send_result(dead_reckoning);  // too early
  service.init(diagnosisService::diagnosisServiceImpl::longest_timeout_ms);
  service.start_monitors();
  for (unsigned action = 2; action <= 10; ++action) {
    service.sendEvent(dead_reckoning, static_cast<mw::dm::dem::MonitorActionType>(action));
  }
  const auto now = std::chrono::steady_clock::now();
  service.set_system_status(diagnosisService::system_pgf, diagnosisService::Status::not_available);
  service.data_received(dead_reckoning, now);
  service.evaluate(now);
  service.set_system_status(diagnosisService::system_pgf, diagnosisService::Status::init);
  service.evaluate(now);
  service.stop();
  diagnosisService::DiagnosticMonitorServiceSkelImpl unknown(
      ara::core::InstanceSpecifier("DiagnosticMonitor_POS_Overall_System"), service, 1);
  unknown.InitMonitor(mw::dm::dem::InitMonitorReason::kReenabled).get();
}

/// Failures of encoding and decoding that take other settings or another caller than the services
/// here have.
void payloads() {
  const auto malformed = [](auto work) {
    try {
      work();
    } catch (const std::exception& error) {
      mw::com::cpp_binding::log_malformed_payload("a::Service", "element", error.what());
    }
  };
  const binding::Serialization_settings unequal{.string_length_field_size = 2};
  constexpr auto largest = std::numeric_limits<std::uint64_t>::max();
  binding::Buffer buffer;
  binding::Cursor cursor{{}};
  malformed([&] { binding::write_length_field(1, 300, buffer, unequal); });
  malformed([&] { binding::write_length_field(3, 1, buffer, unequal); });
  malformed([&] {
    static_cast<void>(binding::length_field_size(binding::Wire_type::configured_length, unequal));
  });
  malformed([&] { static_cast<void>(binding::end_position(2, 2, largest - 1)); });
  malformed([&] { cursor.seek(1); });
  malformed([&] { cursor.read(nullptr, 0); });
  constexpr std::array<std::byte, 2> tag{};
  binding::Cursor member{tag};
  malformed([&] { binding::read_members_in_any_order(member, 2, {}, nullptr, unequal); });
  const binding::Serialization_settings none{.array_length_field_size = 0};
  malformed([&] { binding::encode(std::vector<std::uint8_t>{1}, buffer, none); });
}

class Throwing_monitor final : public mw::dm::dem::skeleton::DiagnosticMonitorSkeleton {
 public:
  Throwing_monitor()
      : DiagnosticMonitorSkeleton(
            ara::core::InstanceSpecifier("DiagnosticMonitor_POS_Input_GNSS")) {}
  ~Throwing_monitor() override { disconnect(); }
  Throwing_monitor(const Throwing_monitor&) = delete;
  Throwing_monitor& operator=(const Throwing_monitor&) = delete;

  ara::core::Future<void> InitMonitor(mw::dm::dem::InitMonitorReason /*reason*/) override {
    throw std::runtime_error("monitor");
  }
};

void peers() {
  using lumo::services::positioning::skeleton::PositioningSkeleton;
  try {
    const PositioningSkeleton unknown(ara::core::InstanceSpecifier("Unknown"));
  } catch (const std::runtime_error&) {  // NOLINT(bugprone-empty-catch): it is in the log
  }
  PositioningSkeleton without_values(
      ara::core::InstanceSpecifier("Positioning_ProvidedSomeipServiceInstance"));
  without_values.OfferService();
  Throwing_monitor monitor;
  monitor.OfferService();
  std::unique_ptr<GNSSProxy> proxy;
  const auto search = GNSSProxy::StartFindService([&](const auto& found, auto) {
    if (found.empty() || proxy) return;
    proxy = std::make_unique<GNSSProxy>(found.front());
    proxy->positions.SetReceiveHandler([] { throw std::runtime_error("receive handler"); });
    proxy->positions.SetSubscriptionStateChangeHandler(
        [](auto) { throw std::runtime_error("state handler"); });
    proxy->positions.Subscribe(2);
    throw std::runtime_error("find handler");
  });
  std::cout << "ready" << std::endl;  // NOLINT(performance-avoid-endl): the test waits for it
  std::string line;
  while (std::getline(std::cin, line)) {
  }
  GNSSProxy::StopFindService(search);
}

}  // namespace

int main(int argc, char** argv) {
  ara::core::Initialize(positioning_application());
  if (argc == 2 && argv[1] == std::string_view("exit-code")) return pos_main(1, argv);
  ara::log::InitLogging("POS", "POS application", ara::log::LogLevel::kInfo,
                        ara::log::LogMode::kRemote, "");
  binding::Platform_trace_logger trace_logger(ara::log::CreateLogger("TRCE", "Binding trace"));
  const binding::Trace_records trace_records(trace_logger);
  const mw::com::runtime::Component_singleton runtime("", false);
  settings();
  storing();
  timers();
  positions();
  monitors();
  payloads();
  peers();
  return 0;
}
