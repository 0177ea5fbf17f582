/// The binding tells of failures, of its own and of handlers, and survives them.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "ara/log/capture.h"
#include "binding/trace_records.h"
#include "clients/GNSS.h"
#include "diagnosisService/DiagnosticMonitor.h"
#include "tests/support/Fake_runtime.h"

namespace {

class Monitor final : public mw::dm::dem::skeleton::DiagnosticMonitorSkeleton {
 public:
  Monitor() : DiagnosticMonitorSkeleton{ara::core::InstanceSpecifier{"Known"}} {}
  ~Monitor() override { disconnect(); }
  ara::core::Future<void> InitMonitor(mw::dm::dem::InitMonitorReason) override {
    throw std::runtime_error{"handler"};
  }
};

class Trace_points : public testing::Test {
 protected:
  Trace_points() {
    ara::log::CreateLogger("TRCE", "Binding trace").SetLevel(ara::log::LogLevel::kDebug);
  }

  [[nodiscard]] std::vector<std::string> records() const {
    std::vector<std::string> names;
    for (const auto& text : capture_.Texts("TRCE")) {
      names.push_back(nlohmann::json::parse(text)["1_incident"]["1_id"]);
    }
    return names;
  }

  Fake_runtime runtime_;
  ara::log::Capture capture_;
  binding::Platform_trace_logger logger_{ara::log::CreateLogger("TRCE", "Binding trace")};
  binding::Trace_records sink_{logger_};
};

using ara::log::LogLevel;
using testing::Contains;
using testing::IsSupersetOf;

TEST_F(Trace_points, a_skeleton_tells_of_bad_requests_and_throwing_handlers_and_answers_them) {
  EXPECT_THROW(
      lumo::services::gnss::skeleton::GNSSSkeleton{ara::core::InstanceSpecifier{"Unknown"}},
      std::runtime_error);
  EXPECT_THAT(records(), Contains("Service_instantiation_error"));

  Monitor monitor;
  const auto init_monitor = [&](const Fake_runtime::Bytes& reason) {
    return runtime_.call("Known", "InitMonitor", reason).code;
  };
  EXPECT_EQ(init_monitor({}), tq::com::Return_code::malformed_message);
  EXPECT_EQ(init_monitor({0}), tq::com::Return_code::not_ok);
  EXPECT_THAT(records(), IsSupersetOf({"Method_call_request_err", "Method_call_request_exception",
                                       "Method_call_response_tx"}));

  lumo::services::gnss::skeleton::GNSSSkeleton source{ara::core::InstanceSpecifier{"Source"}};
  EXPECT_EQ(runtime_.call("Source", "positions", {}).code, tq::com::Return_code::not_ok);
  EXPECT_THAT(records(), Contains("Event_request_update_err"));
}

TEST_F(Trace_points, a_handler_that_still_runs_while_its_skeleton_ends_may_send) {
  std::size_t sent = 0;
  runtime_.on_send = [&] { ++sent; };
  auto monitor = std::make_unique<Monitor>();
  runtime_.on_close = [&event = monitor->MonitorAction] {
    event.Send(mw::dm::dem::MonitorActionType::kPassed);
  };
  monitor.reset();
  EXPECT_EQ(sent, 1U);
}

TEST_F(Trace_points, a_proxy_tells_of_bad_payloads_and_throwing_handlers_and_goes_on) {
  using Proxy = lumo::services::gnss::proxy::GNSSProxy;
  std::unique_ptr<Proxy> proxy;
  Proxy::StartFindService([&](auto handles, auto) {
    proxy = std::make_unique<Proxy>(handles.at(0));
    throw std::runtime_error{"find handler"};
  });
  runtime_.acknowledges = false;
  runtime_.find({1});
  EXPECT_THAT(records(), Contains("Find_service_handler_exception"));

  proxy->positions.SetReceiveHandler([] { throw std::runtime_error{"receive handler"}; });
  proxy->positions.SetSubscriptionStateChangeHandler(
      [](auto) { throw std::runtime_error{"state handler"}; });
  proxy->positions.Subscribe(2);
  const std::vector<std::byte> empty_vector(4);
  runtime_.notify_bytes("positions", empty_vector);
  EXPECT_THAT(records(), IsSupersetOf({"Event_update_when_not_subscribed",
                                       "Event_receive_handler_exception"}));
  runtime_.acknowledge("positions");
  EXPECT_THAT(records(), Contains("Event_state_handler_exception"));
  runtime_.notify_bytes("positions", std::span{empty_vector}.first(3));
  EXPECT_THAT(records(), Contains("Event_deserialize_exception"));
  EXPECT_EQ(
      proxy->positions.GetNewSamples([](const auto& sample) { EXPECT_TRUE(sample->empty()); }), 1U)
      << "what came before the malformed payload is still there";
}

TEST_F(Trace_points, the_records_of_a_message_follow_the_level_at_run_time) {
  using Proxy = lumo::services::gnss::proxy::GNSSProxy;
  Proxy proxy{Proxy::HandleType{{.service = "played", .instance = 1, .where = {}}}};
  proxy.positions.SetReceiveHandler([] {});
  proxy.positions.Subscribe(2);
  lumo::services::gnss::skeleton::GNSSSkeleton source{ara::core::InstanceSpecifier{"Known"}};
  const auto told_at = [&](LogLevel level) {
    ara::log::CreateLogger("TRCE", "").SetLevel(level);
    const auto before = records().size();
    runtime_.notify_bytes("positions", std::vector<std::byte>(4));
    source.positions.Update({});
    const auto all = records();
    return std::vector(all.begin() + static_cast<std::ptrdiff_t>(before), all.end());
  };
  const std::vector<std::string> every{"Event_update_rx", "Event_cache_update",
                                       "Event_receive_handler", "Event_receive_handler_performance",
                                       "Event_update_tx"};
  EXPECT_THAT(told_at(LogLevel::kDebug), testing::IsEmpty());
  EXPECT_EQ(told_at(LogLevel::kVerbose), every);
  EXPECT_THAT(told_at(LogLevel::kOff), testing::IsEmpty());
  EXPECT_EQ(told_at(LogLevel::kVerbose), every);
}

}  // namespace
