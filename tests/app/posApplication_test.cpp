/// The whole application in this process, its neighbours on the same loopback network.
#include "app/posApplication.h"

#include <gmock/gmock.h>
#include <signal.h>

#include <cstdlib>
#include <future>

#include "tests/app/wire.h"
#include "tests/clients/printing.h"
#include "tests/support/capture.h"
#include "tests/support/store.h"

namespace {

using ara::per::KvsType;

using Gnss = lumo::services::gnss::datatypes::DT_positions_struct;
using Times = lumo::services::time::datatypes::DT_times_struct;
using lumo::services::time::datatypes::Time_type;
using Positioning = lumo::services::positioning::datatypes::DT_positions_struct;

Gnss sample(std::uint32_t type, std::uint32_t counter) {
  Gnss position;
  position.positionType = lumo::services::Position_type{type};
  position.messageCounter = counter;
  position.LAT = 48.25;
  position.LAT_valueType = binding::Value_type::physical_value;
  position.LON = 11.5;
  position.LON_valueType = binding::Value_type::error;
  position.preciseLocalTimeSeconds = 1'700'000'000;
  position.preciseLocalTimeSeconds_valueType = binding::Value_type::physical_value;
  position.preciseLocalTimeNanoseconds = 5'000;
  position.preciseLocalTimeNanoseconds_valueType = binding::Value_type::physical_value;
  return position;
}

class Pos_application : public testing::Test {
 public:
  ~Pos_application() override {
    if (result_.valid()) static_cast<void>(stop());
    application_.reset();
  }

 protected:
  /// Runs the application with these settings until the end of the test.
  void run(const std::vector<std::pair<std::string, KvsType>>& settings) {
    setenv("POS_STATE_BUS", "none", 1);
    store_.write(settings);
    application_.emplace(store_.open());
    result_ = std::async(std::launch::async, [this] { return application_->run(); });
    ASSERT_TRUE(log_.wait_for(
        "posApplication startup finished, waiting for shutdown signal, data will be processed in "
        "receiver threads."));
  }
  int stop() {
    application_->signalHandler(SIGTERM);
    return result_.get();
  }

  /// What `Read` of a data identifier answers.
  std::vector<std::uint8_t> read_identifier(std::string_view service) {
    const test::Finder finder(wire_.gateway(), service);
    const auto consumer = finder.connect();
    std::promise<std::vector<std::uint8_t>> answer;
    std::vector<std::byte> no_meta_info;
    binding::encode(std::map<std::string, std::string>{}, no_meta_info);
    consumer->call(consumer->element("Read").method.value(), no_meta_info,
                   [&](tq::com::Return_code, tq::com::Payload payload) {
                     const auto* bytes = reinterpret_cast<const std::uint8_t*>(payload.data());
                     answer.set_value({bytes, bytes + payload.size()});
                   });
    return answer.get_future().get();
  }
  /// Waits until `Read` of a data-bus record answers with these bytes.
  void become(const std::string& identifier, const std::vector<std::uint8_t>& bytes) {
    const auto service = "lumo::services::diag::" + identifier;
    std::vector<std::uint8_t> last;
    EXPECT_TRUE(test::eventually([&] { return (last = read_identifier(service)) == bytes; }))
        << identifier << " is " << testing::PrintToString(last);
  }

  Wire wire_;
  std::unique_ptr<tq::com::Provider> gnss_ =
      wire_.gateway().provide("lumo::services::gnss::GNSS", "GNSS_ProvidedSomeipServiceInstance");
  test::Capture log_;
  Store store_;
  std::optional<posApplication> application_;
  std::future<int> result_;
};

TEST_F(Pos_application, a_gnss_position_becomes_a_dead_reckoning_position) {
  run({{"ignoreGNSSTimestamps", KvsType(false)}, {"recievedGNSSDataLogging", KvsType(false)}});
  test::Seen<std::vector<Positioning>> published;
  const test::Finder finder(wire_.gateway(), "lumo::services::positioning::Positioning");
  const auto consumer = finder.connect();
  consumer->subscribe(
      "positions",
      [&](tq::com::Payload payload) { published.add(decoded<std::vector<Positioning>>(payload)); },
      [](bool) {});
  ASSERT_TRUE(published.wait_count(1));  // the field's first value: nothing but the time

  update(*gnss_, "positions", std::vector{sample(1, 6)});  // not of the wanted type
  gnss_->offer();
  ASSERT_TRUE(log_.wait_for("generalClientImpl: connected to instance  1"));
  update(*gnss_, "positions", std::vector{sample(2, 7)});
  ASSERT_TRUE(published.wait_count(2));

  auto position = published.all()[1].at(0);
  EXPECT_EQ(position.messageCounter, 7u);
  EXPECT_EQ(position.LAT, 48.25);
  EXPECT_FALSE(position.LON || position.positionType);
  EXPECT_EQ(position.preciseLocalTimeSeconds, 1'700'000'000u);
  EXPECT_EQ(position.preciseLocalTimeNanoseconds, 5'000u);
  const std::vector statuses{position.statusPosition,   position.statusAltitude,
                             position.statusYawAngle,   position.statusSpeed,
                             position.statusAttitude,   position.statusTime,
                             position.statusMapMatching};
  EXPECT_THAT(statuses, testing::ElementsAre(2u, 1u, 2u, 2u, 2u, 1u, 0u));
  EXPECT_EQ(stop(), 0);
}

TEST_F(Pos_application, what_the_consumed_services_tell_is_in_the_data_bus_records_and_the_offset) {
  run({{"timeClientEnabled", KvsType(true)}});
  const std::string not_available = "d_1190::DataIdentifier_BDPSomeipDataBusServiceNotAvailable";
  const std::string error_value =
      "d_1191::DataIdentifier_BDPSomeipDataBusServiceErrorValueReceived";
  const std::string implausible = "d_1192::DataIdentifier_BDPSomeipDataBusServiceImplausible";

  const auto times =
      wire_.gateway().provide("lumo::services::time::Time", "Time_ProvidedSomeipServiceInstance");
  gnssClient::gnssClientImpl::Quality bad_quality;
  bad_quality.gDOP_valueType = binding::Value_type::physical_value;
  gnssClient::gnssClientImpl::Satellite bad_satellite;
  bad_satellite.elevation_valueType = binding::Value_type{9};
  Times bad_time;
  bad_time.type = Time_type::platform;
  bad_time.pltOffset = 1'234'999;
  bad_time.utcNanoseconds = 1'000'000'000;
  Times of_another_type;
  of_another_type.type = Time_type{3};
  of_another_type.pltOffset = 9'000'000;
  become(not_available, {0, 0, 0, 10, 1, 0, 1, 0, 1, 2, 0, 1, 0, 1});  // never found
  update(*gnss_, "positions", std::vector{sample(1, 1)});
  gnss_->offer();
  become(error_value, {0, 0, 0, 5, 1, 1, 1, 0, 1});
  become(not_available, {0, 0, 0, 10, 1, 0, 0, 0, 1, 2, 0, 1, 0, 1});
  update(*gnss_, "positionsQuality", std::vector{bad_quality});
  become(implausible, {0, 0, 0, 5, 1, 2, 1, 0, 1});
  update(*gnss_, "posGnssSatInfos", std::vector{bad_satellite});
  become(implausible, {0, 0, 0, 10, 1, 2, 1, 0, 1, 1, 3, 1, 0, 1});
  update(*times, "times", std::vector{bad_time, of_another_type, Times{}});
  times->offer();
  become(implausible, {0, 0, 0, 15, 1, 2, 1, 0, 1, 1, 3, 1, 0, 1, 2, 1, 1, 0, 1});
  EXPECT_TRUE(
      log_.wait_for("Times struct received from Timemaster:  type missing,  pltOffset missing"));
  EXPECT_EQ(timeutils::instance().add_offset(0), 1'234u);

  update(*gnss_, "positions", std::vector<Gnss>(1));
  become(error_value, {0, 0, 0, 5, 1, 1, 0, 0, 1});
  times->stop_offer();
  become(not_available, {0, 0, 0, 10, 1, 0, 0, 0, 1, 2, 0, 1, 0, 2});
  gnss_->stop_offer();
  become(not_available, {0, 0, 0, 10, 1, 0, 1, 0, 2, 2, 0, 1, 0, 2});
  times->offer();
  become(not_available, {0, 0, 0, 10, 1, 0, 1, 0, 2, 2, 0, 0, 0, 2});
}

}  // namespace
