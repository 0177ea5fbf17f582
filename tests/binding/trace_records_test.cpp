#include "binding/trace_records.h"

#include <gmock/gmock.h>

#include <mutex>
#include <nlohmann/json.hpp>

#include "binding/codec.h"
#include "clients/GnssRecords.h"

namespace {

using ara::log::LogLevel;
using mw::com::cpp_binding::Trace_event;
using mw::com::cpp_binding::Trace_id;
using testing::ElementsAre;
using testing::Pair;

class Recorder final : public binding::Trace_logger {
 public:
  explicit Recorder(LogLevel level) : level_{level} {}
  [[nodiscard]] bool is_enabled(LogLevel level) const override { return level <= level_; }
  void log(LogLevel level, std::string_view text) override { lines.emplace_back(level, text); }

  std::vector<std::pair<LogLevel, std::string>> lines;

 private:
  LogLevel level_;
};

Trace_event event(Trace_id id) {
  return {.id = id,
          .service = "a::S",
          .instance = "1",
          .element = 7,
          .call = 3,
          .error = 9,
          .version = 0x00030001,
          .short_name = "S",
          .duration = std::chrono::microseconds{12}};
}

TEST(Trace_records, have_the_keys_of_their_kind_in_order) {
  const std::string service = R"("2_service_id":{"1_id":"Service_id","string":"a::S"})";
  const std::string searched = R"("2_service_id":{"1_id":"Service_id","2_char const*":"a::S"})";
  const std::string instance = R"("3_instance_id":{"1_id":"Instance_id","2_string":"1"})";
  const auto record = [](const std::string& name, std::initializer_list<std::string> parts) {
    std::string text = R"({"1_incident":{"1_id":")" + name + '"';
    for (const auto& part : parts)
      text += "," + part;
    return text + "}}";
  };
  EXPECT_EQ(binding::to_json(event(Trace_id::Offer_service)),
            record("Offer_service", {service, instance}));
  EXPECT_EQ(binding::to_json(event(Trace_id::Service_skeleton_constructed)),
            record("Service_skeleton_constructed",
                   {service, instance, R"("4_struct4bytes":196609,"5_utf8simple":"S")"}));
  EXPECT_EQ(binding::to_json(event(Trace_id::Service_instantiation_error)),
            R"({"1_incident":{"1_id":"Service_instantiation_error","2_instance_id":)"
            R"({"1_id":"Instance_id","2_string":"1"}}})");
  EXPECT_EQ(binding::to_json(event(Trace_id::Method_call_request_err)),
            record("Method_call_request_err",
                   {service, instance, R"("4_method_id":7,"5_error_code":9)"}));
  EXPECT_EQ(
      binding::to_json(event(Trace_id::Method_call_response_tx)),
      record("Method_call_response_tx",
             {service, instance, R"("4_method_id":7,"5_method_call_id":3,"6_error_code":9)"}));
  EXPECT_EQ(binding::to_json(event(Trace_id::Event_update_tx)),
            R"({"1_incident":{"1_id":"Event_update_tx","2_Event_id":7}})");
  EXPECT_EQ(binding::to_json(event(Trace_id::Find_service_stop)),
            record("Find_service_stop", {searched}));
  EXPECT_EQ(binding::to_json(event(Trace_id::Find_service_handler_performance)),
            record("Find_service_handler_performance", {searched, instance, R"("4_time":12)"}));
  EXPECT_EQ(binding::to_json(event(Trace_id::Event_receive_handler_performance)),
            record("Event_receive_handler_performance",
                   {service, instance, R"("4_event_id":7,"5_time":12)"}));
}

TEST(Trace_records, carry_a_payload_as_positions_and_kinds) {
  lumo::services::gnss::datatypes::DT_positionsQuality_struct quality;
  quality.positionType = 1;
  quality.isActivatedAssistedGNSS = true;
  quality.satsInViewGPS = std::uint8_t{9};
  const std::vector values{quality};
  auto with_payload = event(Trace_id::Method_call_request_process);
  with_payload.payload = {
      &values, [](const void* object, mw::com::cpp_binding::Trace_json& json) {
        using Values = std::vector<lumo::services::gnss::datatypes::DT_positionsQuality_struct>;
        mw::com::cpp_binding::Serialization<Values>::trace(*static_cast<const Values*>(object),
                                                           json, 1);
      }};
  const auto text = binding::to_json(with_payload);
  EXPECT_THAT(text,
              testing::EndsWith(R"("2_data":{"1_vector":{"1_generated_type":{"1_undefined_type":)"
                                R"("undefined_type","10_uint8":1,"24_uint8":9}}}})"));
  EXPECT_TRUE(nlohmann::json::accept(text));
}

TEST(Trace_records, are_built_only_at_an_enabled_level) {
  Recorder recorder{LogLevel::kInfo};
  const binding::Trace_records sink{recorder};
  int built = 0;
  const auto tell = [&](Trace_id id) {
    mw::com::cpp_binding::trace(id, [&] {
      ++built;
      return event(id);
    });
  };
  tell(Trace_id::Event_update_rx);
  tell(Trace_id::Method_call_request_process);
  EXPECT_EQ(built, 0);
  tell(Trace_id::Offer_service);
  tell(Trace_id::Method_call_request_exception);
  EXPECT_EQ(built, 2);
  EXPECT_EQ(recorder.lines.at(1).first, LogLevel::kFatal);
}

TEST(Trace_records, become_an_empty_line_when_they_cannot_be_built) {
  Recorder recorder{LogLevel::kInfo};
  const binding::Trace_records sink{recorder};
  mw::com::cpp_binding::trace(Trace_id::Offer_service, [] {
    auto bad = event(Trace_id::Offer_service);
    bad.instance = "\xff";
    return bad;
  });
  EXPECT_THAT(recorder.lines, ElementsAre(Pair(LogLevel::kInfo, "")));
}

TEST(Trace_levels, show_the_life_of_services_at_info_and_nothing_per_message) {
  for (const auto id : {Trace_id::Offer_service, Trace_id::Find_service_result,
                        Trace_id::Field_subscribe, Trace_id::Service_proxy_constructed}) {
    EXPECT_EQ(mw::com::cpp_binding::trace_level(id), LogLevel::kInfo) << binding::name_of(id);
  }
  for (const auto id : {Trace_id::Event_update_rx, Trace_id::Event_update_tx,
                        Trace_id::Event_cache_update, Trace_id::Event_receive_handler,
                        Trace_id::Method_call_response_tx, Trace_id::Method_call_request_process}) {
    EXPECT_GT(mw::com::cpp_binding::trace_level(id), LogLevel::kInfo) << binding::name_of(id);
  }
}

}  // namespace
