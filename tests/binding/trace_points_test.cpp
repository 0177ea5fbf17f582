/// The binding tells of failures, of its own and of handlers, and survives them.
#include <gmock/gmock.h>

#include <map>
#include <nlohmann/json.hpp>

#include "ara/log/capture.h"
#include "binding/trace_records.h"
#include "clients/GNSS.h"
#include "diagnosisService/DiagnosticMonitor.h"

namespace {

/// The other side of every connection, played by the test.
class Played_runtime final : public tq::com::Runtime {
 public:
  Played_runtime();
  ~Played_runtime() override;

  tq::com::Find_token start_find_service(std::string_view,
                                         std::optional<std::uint16_t>,
                                         tq::com::Find_handler handler) override {
    found = std::move(handler);
    return tq::com::Find_token{1};
  }
  void stop_find_service(tq::com::Find_token) override {}
  std::unique_ptr<tq::com::Consumer> connect(const tq::com::Found_instance&) override;
  std::unique_ptr<tq::com::Provider> provide(std::string_view service,
                                             std::string_view specifier) override;
  std::vector<std::pair<std::string_view, std::uint64_t>> counters() const override { return {}; }

  tq::com::Find_handler found;
  std::map<std::string, tq::com::Notification_handler, std::less<>> notifications;
  std::map<std::string, tq::com::Subscription_state_handler, std::less<>> states;
  std::map<std::uint16_t, tq::com::Method_handler> methods;
  std::function<void()> closing;
  std::size_t sent = 0;
};

Played_runtime* the_runtime = nullptr;

constexpr tq::com::Element_ids ids{.method = 1, .getter = 2, .setter = {}, .notifier = 0x8001};

class Played_consumer final : public tq::com::Consumer {
 public:
  tq::com::Element_ids element(std::string_view) const override { return ids; }
  void subscribe(std::string_view element,
                 tq::com::Notification_handler handler,
                 tq::com::Subscription_state_handler on_state) override {
    the_runtime->notifications.insert_or_assign(std::string{element}, std::move(handler));
    the_runtime->states.insert_or_assign(std::string{element}, std::move(on_state));
  }
  void unsubscribe(std::string_view) override {}
  void call(std::uint16_t, tq::com::Payload, tq::com::Response_handler) override {}
  void call_no_return(std::uint16_t, tq::com::Payload) override {}
};

class Played_provider final : public tq::com::Provider {
 public:
  std::string_view service() const override { return "played"; }
  std::uint16_t instance() const override { return 1; }
  tq::com::Element_ids element(std::string_view) const override { return ids; }
  void set_method_handler(std::uint16_t method, tq::com::Method_handler handler) override {
    the_runtime->methods.insert_or_assign(method, std::move(handler));
  }
  void offer() override {}
  void stop_offer() override {}
  void close() override {
    if (const auto work = std::exchange(the_runtime->closing, nullptr)) work();
  }
  void update_field(std::uint16_t, tq::com::Payload) override {}
  void send_event(std::uint16_t, tq::com::Payload) override { ++the_runtime->sent; }
};

Played_runtime::Played_runtime() {
  the_runtime = this;
}
Played_runtime::~Played_runtime() {
  the_runtime = nullptr;
}
std::unique_ptr<tq::com::Consumer> Played_runtime::connect(const tq::com::Found_instance&) {
  return std::make_unique<Played_consumer>();
}
std::unique_ptr<tq::com::Provider> Played_runtime::provide(std::string_view,
                                                           std::string_view specifier) {
  if (specifier == "Unknown") throw std::runtime_error{"no such instance"};
  return std::make_unique<Played_provider>();
}

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

  Played_runtime runtime_;
  ara::log::Capture capture_;
  binding::Platform_trace_logger logger_{ara::log::CreateLogger("TRCE", "Binding trace")};
  binding::Trace_records sink_{logger_};
};

using ara::log::LogLevel;
using testing::Contains;
using testing::ElementsAreArray;
using testing::IsSupersetOf;

TEST_F(Trace_points, a_skeleton_tells_of_bad_requests_and_throwing_handlers_and_answers_them) {
  EXPECT_THROW(
      lumo::services::gnss::skeleton::GNSSSkeleton{ara::core::InstanceSpecifier{"Unknown"}},
      std::runtime_error);
  EXPECT_THAT(records(), Contains("Service_instantiation_error"));

  Monitor monitor;
  EXPECT_EQ(runtime_.methods.at(1)({}).code, tq::com::Return_code::malformed_message);
  const std::byte reason{0};
  EXPECT_EQ(runtime_.methods.at(1)({&reason, 1}).code, tq::com::Return_code::not_ok);
  EXPECT_THAT(records(), IsSupersetOf({"Method_call_request_err", "Method_call_request_exception",
                                       "Method_call_response_tx"}));

  lumo::services::gnss::skeleton::GNSSSkeleton source{ara::core::InstanceSpecifier{"Known"}};
  EXPECT_EQ(runtime_.methods.at(2)({}).code, tq::com::Return_code::not_ok);
  EXPECT_THAT(records(), Contains("Event_request_update_err"));
  EXPECT_TRUE(
      capture_.Has("Get handler enabled but not configured and Update not called; Method_id= 2"));
}

TEST_F(Trace_points, a_handler_that_still_runs_while_its_skeleton_ends_may_send) {
  auto monitor = std::make_unique<Monitor>();
  runtime_.closing = [&event = monitor->MonitorAction] {
    event.Send(mw::dm::dem::MonitorActionType::kPassed);
  };
  monitor.reset();
  EXPECT_EQ(runtime_.sent, 1U);
}

TEST_F(Trace_points, a_proxy_tells_of_bad_payloads_and_throwing_handlers_and_goes_on) {
  using Proxy = lumo::services::gnss::proxy::GNSSProxy;
  std::unique_ptr<Proxy> proxy;
  Proxy::StartFindService([&](auto handles, auto) {
    proxy = std::make_unique<Proxy>(handles.at(0));
    throw std::runtime_error{"find handler"};
  });
  runtime_.found({{.service = "played", .instance = 1, .where = {}}});
  EXPECT_THAT(records(), Contains("Find_service_handler_exception"));

  proxy->positions.SetReceiveHandler([] { throw std::runtime_error{"receive handler"}; });
  proxy->positions.SetSubscriptionStateChangeHandler(
      [](auto) { throw std::runtime_error{"state handler"}; });
  proxy->positions.Subscribe(2);
  const std::vector<std::byte> empty_vector(4);
  runtime_.notifications.at("positions")(empty_vector);
  EXPECT_THAT(records(), IsSupersetOf({"Event_update_when_not_subscribed",
                                       "Event_receive_handler_exception"}));
  runtime_.states.at("positions")(true);
  EXPECT_THAT(records(), Contains("Event_state_handler_exception"));
  runtime_.notifications.at("positions")(std::span{empty_vector}.first(3));
  EXPECT_THAT(records(), Contains("Event_deserialize_exception"));
  EXPECT_TRUE(
      capture_.Has("Dropped a malformed payload of lumo::services::gnss::GNSS positions Read "
                   "beyond the end of the data buffer"));

  EXPECT_EQ(
      proxy->positions.GetNewSamples([](const auto& sample) { EXPECT_TRUE(sample->empty()); }), 1U)
      << "what came before the malformed payload is still there";
}

TEST_F(Trace_points, the_records_of_a_message_follow_the_level_at_run_time) {
  using Proxy = lumo::services::gnss::proxy::GNSSProxy;
  Proxy proxy{Proxy::HandleType{{.service = "played", .instance = 1, .where = {}}}};
  proxy.positions.SetReceiveHandler([] {});
  proxy.positions.Subscribe(2);
  runtime_.states.at("positions")(true);
  lumo::services::gnss::skeleton::GNSSSkeleton source{ara::core::InstanceSpecifier{"Known"}};
  const auto told_at = [&](LogLevel level) {
    ara::log::CreateLogger("TRCE", "").SetLevel(level);
    const auto before = records().size();
    runtime_.notifications.at("positions")(std::vector<std::byte>(4));
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

namespace tq::com {
Runtime& Runtime::instance() {
  if (the_runtime == nullptr) throw std::logic_error{"the test has no runtime"};
  return *the_runtime;
}
}  // namespace tq::com
