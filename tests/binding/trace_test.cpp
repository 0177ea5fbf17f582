/// The binding's proxies and skeletons, above all their trace records, where no run of the
/// application shows them; the texts of all others, and that a handler that throws costs one and
/// nothing else, are log_texts_test.py's to see.
#include <gmock/gmock.h>

#include <thread>

#include "binding/trace_records.h"
#include "clients/GNSS.h"
#include "diagnosisService/DiagnosticMonitor.h"
#include "mw/com/cpp_binding/skeleton.h"
#include "tests/support/capture.h"
#include "tests/support/fake_runtime.h"

namespace {

using ara::log::LogLevel;
using lumo::services::gnss::datatypes::DT_positionsQuality_struct;
using lumo::services::gnss::proxy::GNSSProxy;
using lumo::services::gnss::skeleton::GNSSSkeleton;
using mw::com::cpp_binding::Trace_event;
using mw::com::cpp_binding::Trace_id;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const GNSSProxy::Handle_type played{{.service = "played", .instance = 1, .where = {}}};
const std::vector<std::byte> empty_vector(4);

Trace_event event(Trace_id id, std::string_view instance = "1") {
  return {.id = id, .service = "a::S", .instance = instance};
}

class Trace : public testing::Test {
 protected:
  Trace() { context_.SetLevel(LogLevel::kInfo); }
  /// What was told since the last call.
  std::vector<std::string> told() {
    auto texts = capture_.texts("TRCE");
    capture_.clear();
    return texts;
  }

  Fake_runtime runtime_;
  test::Capture capture_;
  ara::log::Logger& context_ = ara::log::CreateLogger("TRCE", "Binding trace");
  binding::Platform_trace_logger logger_{context_};
  binding::Trace_records sink_{logger_};
};

TEST_F(Trace, of_a_message_follows_the_level_at_run_time) {
  GNSSProxy proxy{played};
  proxy.positions.SetReceiveHandler([] {});
  proxy.positions.Subscribe(2);
  GNSSSkeleton source{ara::core::InstanceSpecifier{"Known"}};
  const auto told_at = [&](LogLevel level) {
    context_.SetLevel(level);
    static_cast<void>(told());
    runtime_.notify_bytes("positions", empty_vector);
    source.positions.Update({});
    return told();
  };
  const auto every =
      ElementsAre(HasSubstr("Event_update_rx"), HasSubstr("Event_cache_update"),
                  HasSubstr("Event_receive_handler"),
                  HasSubstr("Event_receive_handler_performance"), HasSubstr("Event_update_tx"));
  EXPECT_THAT(told_at(LogLevel::kDebug), IsEmpty());
  EXPECT_THAT(told_at(LogLevel::kVerbose), every);
  EXPECT_THAT(told_at(LogLevel::kOff), IsEmpty());
  EXPECT_THAT(told_at(LogLevel::kVerbose), every);
}

TEST_F(Trace, carries_a_payload_as_positions_and_kinds) {
  DT_positionsQuality_struct quality;
  quality.positionType = lumo::services::Position_type{1};
  quality.isActivatedAssistedGNSS = true;
  quality.satsInViewGPS = std::uint8_t{9};
  using Values = std::vector<DT_positionsQuality_struct>;
  const Values values{quality};
  auto call = event(Trace_id::Method_call_request_process);
  call.payload = {&values, [](const void* object, mw::com::cpp_binding::Trace_json& json) {
                    mw::com::cpp_binding::Serialization<Values>::trace(
                        *static_cast<const Values*>(object), json, 1);
                  }};
  EXPECT_THAT(binding::to_json(call),
              testing::EndsWith(R"("2_data":{"1_vector":{"1_generated_type":{"1_undefined_type":)"
                                R"("undefined_type","10_uint8":1,"24_uint8":9}}}})"));
}

TEST_F(Trace, records_are_built_at_an_enabled_level_and_empty_when_they_cannot_be) {
  int built = 0;
  const auto tell = [&](Trace_id id, std::string_view instance) {
    mw::com::cpp_binding::trace(id, [&] {
      ++built;
      return event(id, instance);
    });
  };
  tell(Trace_id::Event_update_rx, "1");
  EXPECT_EQ(built, 0);
  tell(Trace_id::Offer_service, "1");
  tell(Trace_id::Offer_service, "\xff");
  EXPECT_EQ(built, 2);
  EXPECT_THAT(told(), ElementsAre(HasSubstr("Offer_service"), ""));
}

TEST_F(Trace, a_malformed_payload_takes_nothing_that_came_before) {
  GNSSProxy proxy{played};
  proxy.positions.Subscribe(1);
  runtime_.notify_bytes("positions", empty_vector);
  runtime_.notify_bytes("positions", std::span{empty_vector}.first(3));
  EXPECT_THAT(told(), testing::Contains(HasSubstr("Event_deserialize_exception")));
  EXPECT_EQ(proxy.positions.GetNewSamples([](const auto& sample) { EXPECT_TRUE(sample->empty()); }),
            1U);
}

TEST_F(Trace, an_event_subscribed_anew_ends_the_first_subscription_before_its_samples_go) {
  GNSSProxy proxy{played};
  proxy.positions.Subscribe(1);
  runtime_.on_unsubscribe = [&] { runtime_.notify_bytes("positions", empty_vector); };
  proxy.positions.Subscribe(1);
  EXPECT_EQ(proxy.positions.GetNewSamples([](const auto&) {}), 0U) << "it was the first one's";
}

TEST_F(Trace, each_offer_has_one_end_whichever_way_it_ends) {
  const auto offer = HasSubstr("\"Offer_service\"");
  const auto stop = HasSubstr("\"Stop_offer_service\"");
  const auto live = [&](const std::function<void(GNSSSkeleton&)>& life) {
    auto source = std::make_unique<GNSSSkeleton>(ara::core::InstanceSpecifier{"Known"});
    static_cast<void>(told());
    life(*source);
    source.reset();
    return told();
  };
  EXPECT_THAT(live([](auto&) {}), IsEmpty());
  EXPECT_THAT(live([](auto& source) { source.OfferService(); }), ElementsAre(offer, stop));
  EXPECT_THAT(live([](auto& source) {
                source.StopOfferService();
                source.OfferService();
                source.OfferService();
                source.StopOfferService();
                source.StopOfferService();
                source.OfferService();
              }),
              ElementsAre(offer, stop, offer, stop));
}

class Monitor final : public mw::dm::dem::skeleton::DiagnosticMonitorSkeleton {
 public:
  Monitor() : DiagnosticMonitorSkeleton{ara::core::InstanceSpecifier{"Known"}} {}
  ~Monitor() override { disconnect(); }
  ara::core::Future<void> InitMonitor(mw::dm::dem::InitMonitorReason) override { return {}; }
};

TEST(Field, get_answers_with_the_value_notified_last_even_one_that_takes_no_bytes) {
  Fake_runtime runtime;
  mw::com::cpp_binding::skeleton::Skeleton_core core{
      .service = "a::S", .instance = "1", .provider = runtime.provide("a::S", "one")};
  mw::com::cpp_binding::skeleton::Field<DT_positionsQuality_struct> field{core, "quality"};
  const auto get = [&] { return runtime.call("one", "quality", {}); };
  EXPECT_EQ(get().code, tq::com::Return_code::not_ok);
  field.Update({});
  EXPECT_EQ(get().code, tq::com::Return_code::ok);
  EXPECT_TRUE(get().payload.empty());

  DT_positionsQuality_struct first, second;
  first.positionType = lumo::services::Position_type{1};
  second.positionType = lumo::services::Position_type{2};
  runtime.on_send = [&, overtaken = false]() mutable {
    if (!std::exchange(overtaken, true)) std::thread([&] { field.Update(second); }).join();
  };
  field.Update(first);
  std::vector<std::byte> notified_last;
  binding::encode(first, notified_last);
  EXPECT_EQ(get().payload, notified_last);
}

TEST_F(Trace, a_handler_that_still_runs_while_its_skeleton_ends_may_send) {
  std::size_t sent = 0;
  runtime_.on_send = [&] { ++sent; };
  auto monitor = std::make_unique<Monitor>();
  runtime_.on_close = [&event = monitor->MonitorAction] {
    event.Send(mw::dm::dem::MonitorActionType::kPassed);
  };
  monitor.reset();
  EXPECT_EQ(sent, 1U);
}

}  // namespace
