/// The whole application in this process, its neighbours on the same loopback
/// network.
#include "app/posApplication.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <boost/optional/optional_io.hpp>
#include <cstdlib>
#include <future>
#include <thread>

#include "ara/log/capture.h"
#include "tests/clients/wire.h"
#include "tests/support/Temporary_folder.h"

namespace {

using ara::per::KvsType;

using Gnss = lumo::services::gnss::datatypes::DT_positions_struct;
using Times = lumo::services::time::datatypes::DT_times_struct;
using Positioning = lumo::services::positioning::datatypes::DT_positions_struct;

constexpr const char* kStarted =
    "posApplication startup finished, waiting for "
    "shutdown signal, data will be processed in "
    "receiver threads.";

Gnss sample(std::uint32_t type, std::uint32_t counter) {
  Gnss position;
  position.positionType = type;
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

class ApplicationTest : public testing::Test {
 public:
  ~ApplicationTest() override {
    if (result_.valid()) static_cast<void>(stop());
    application_.reset();
  }

 protected:
  /// Runs the application with these settings until the end of the test.
  void run(const std::vector<std::pair<std::string, KvsType>>& settings) {
    prepare(settings);
    result_ = std::async(std::launch::async, [this] { return application_->run(); });
    ASSERT_TRUE(log_.WaitFor(kStarted));
  }
  /// Makes the application with these settings.
  void prepare(const std::vector<std::pair<std::string, KvsType>>& settings) {
    setenv("POS_STORAGE_DIR", folder_.path().c_str(), 1);
    setenv("POS_STATE_BUS", "none", 1);
    {
      ara::per::KeyValueStorage store("POS_Key_Value_Port");
      for (const auto& [key, value] : settings)
        store.SetValue(key, value);
      store.SyncToStorage();
    }
    application_.emplace(
        Persistency("POS_Key_Value_Port", ara::log::CreateLogger("DBAC", "Persistency access")));
  }
  int stop() {
    application_->signalHandler(SIGTERM);
    return result_.get();
  }

  /// Whether data has been received for the monitor since the start.
  bool becomesNominal(const std::string& monitor) {
    return log_.WaitFor("Changing of state, ID = " + monitor +
                        " , prev status = Init , new status = Nominal");
  }

  /// What `Read` of a data identifier answers.
  std::vector<std::uint8_t> readIdentifier(std::string_view service) {
    const test::Finder finder(wire_.gateway(), service);
    const auto found = finder.wait(1);
    if (found.empty()) throw std::runtime_error("not offered: " + std::string(service));
    const auto consumer = wire_.gateway().connect(found.front());
    std::promise<std::vector<std::uint8_t>> answer;
    std::vector<std::byte> noMetaInfo;
    binding::encode(std::map<std::string, std::string>{}, noMetaInfo);
    consumer->call(consumer->element("Read").method.value(), noMetaInfo,
                   [&](tq::com::Return_code, tq::com::Payload payload) {
                     const auto* bytes = reinterpret_cast<const std::uint8_t*>(payload.data());
                     answer.set_value({bytes, bytes + payload.size()});
                   });
    return answer.get_future().get();
  }

  Wire wire_{72};
  ara::log::Capture log_;
  Temporary_folder folder_;
  std::optional<posApplication> application_;
  std::future<int> result_;
};

TEST_F(ApplicationTest, a_gnss_position_becomes_a_dead_reckoning_position) {
  run({{"ignoreGNSSTimestamps", KvsType(false)}, {"recievedGNSSDataLogging", KvsType(false)}});

  test::Seen<std::vector<Positioning>> published;
  const test::Finder finder(wire_.gateway(), "lumo::services::positioning::Positioning");
  const auto found = finder.wait(1);
  ASSERT_EQ(found.size(), 1u);
  const auto consumer = wire_.gateway().connect(found.front());
  consumer->subscribe(
      "positions",
      [&](tq::com::Payload payload) { published.add(decoded<std::vector<Positioning>>(payload)); },
      [](bool) {});
  ASSERT_TRUE(published.wait_count(1));  // the field's first value: nothing but the time

  const auto gnss =
      wire_.gateway().provide("lumo::services::gnss::GNSS", "GNSS_ProvidedSomeipServiceInstance");
  update(*gnss, "positions", std::vector{sample(1, 6)});  // not of the wanted type
  gnss->offer();
  ASSERT_TRUE(log_.WaitFor("generalClientImpl: connected to instance  1"));
  update(*gnss, "positions", std::vector{sample(2, 7)});
  ASSERT_TRUE(published.wait_count(2));

  const auto position = published.all()[1].at(0);
  EXPECT_EQ(position.messageCounter, 7u);
  EXPECT_EQ(position.LAT, 48.25);
  EXPECT_FALSE(position.LON);
  EXPECT_FALSE(position.positionType);
  EXPECT_EQ(position.preciseLocalTimeSeconds, 1'700'000'000u);
  EXPECT_EQ(position.preciseLocalTimeNanoseconds, 5'000u);
  EXPECT_EQ(position.statusPosition, 2u);
  EXPECT_EQ(position.statusAltitude, 1u);
  EXPECT_EQ(position.statusYawAngle, 2u);
  EXPECT_EQ(position.statusSpeed, 2u);
  EXPECT_EQ(position.statusAttitude, 2u);
  EXPECT_EQ(position.statusTime, 1u);
  EXPECT_EQ(position.statusMapMatching, 0u);

  EXPECT_TRUE(becomesNominal("POS_Input_GNSS"));
  EXPECT_TRUE(becomesNominal("POS_Output_DeadReckoning"));
  EXPECT_EQ(stop(), 0);
}

TEST_F(ApplicationTest, faults_of_the_consumed_services_are_in_the_data_bus_records) {
  run({{"timeClientEnabled", KvsType(true)}});
  const auto become = [this](std::string_view which, const std::vector<std::uint8_t>& expected) {
    const auto service = "lumo::services::diag::" + std::string(which);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::vector<std::uint8_t> read;
    do {
      read = readIdentifier(service);
    } while (read != expected && std::chrono::steady_clock::now() < deadline);
    EXPECT_EQ(read, expected) << which;
  };
  const std::string not_available = "d_1190::DataIdentifier_BDPSomeipDataBusServiceNotAvailable";
  const std::string error_value =
      "d_1191::DataIdentifier_BDPSomeipDataBusServiceErrorValueReceived";
  const std::string implausible = "d_1192::DataIdentifier_BDPSomeipDataBusServiceImplausible";

  const auto gnss =
      wire_.gateway().provide("lumo::services::gnss::GNSS", "GNSS_ProvidedSomeipServiceInstance");
  const auto times =
      wire_.gateway().provide("lumo::services::time::Time", "Time_ProvidedSomeipServiceInstance");
  auto bad_quality = gnssClient::gnssClientImpl::Quality{};
  bad_quality.gDOP_valueType = binding::Value_type::physical_value;
  auto bad_satellite = gnssClient::gnssClientImpl::Satellite{};
  bad_satellite.elevation_valueType = binding::Value_type{9};
  auto bad_time = Times{};
  bad_time.utcNanoseconds = 1'000'000'000;
  update(*gnss, "positions", std::vector{sample(1, 1)});
  gnss->offer();
  become(error_value, {0, 0, 0, 5, 1, 1, 1, 0, 1});
  become(not_available, {0, 0, 0, 0});
  update(*gnss, "positionsQuality", std::vector{bad_quality});
  become(implausible, {0, 0, 0, 5, 1, 2, 1, 0, 1});
  update(*gnss, "posGnssSatInfos", std::vector{bad_satellite});
  become(implausible, {0, 0, 0, 10, 1, 2, 1, 0, 1, 1, 3, 1, 0, 1});
  update(*times, "times", std::vector{bad_time});
  times->offer();
  become(implausible, {0, 0, 0, 15, 1, 2, 1, 0, 1, 1, 3, 1, 0, 1, 2, 1, 1, 0, 1});

  update(*gnss, "positions", std::vector<Gnss>(1));
  become(error_value, {0, 0, 0, 5, 1, 1, 0, 0, 1});
  times->stop_offer();
  become(not_available, {0, 0, 0, 5, 2, 0, 1, 0, 1});
  gnss->stop_offer();
  become(not_available, {0, 0, 0, 10, 2, 0, 1, 0, 1, 1, 0, 1, 0, 1});
  times->offer();
  become(not_available, {0, 0, 0, 10, 2, 0, 0, 0, 1, 1, 0, 1, 0, 1});
}

TEST_F(ApplicationTest, times_of_type_2_set_the_platform_offset) {
  run({{"timeClientEnabled", KvsType(true)}});
  const auto times =
      wire_.gateway().provide("lumo::services::time::Time", "Time_ProvidedSomeipServiceInstance");
  Times set;
  set.type = 2;
  set.pltOffset = 1'234'999;
  Times other;
  other.type = 3;
  other.pltOffset = 9'000'000;
  update(*times, "times", std::vector{set, other, Times{}});
  times->offer();
  ASSERT_TRUE(becomesNominal("POS_Input_Time"));
  EXPECT_EQ(timeutils::instance().addOffset(0), 1'234u);
}

TEST_F(ApplicationTest, signals_while_it_starts_and_stops_do_no_harm) {
  prepare({});
  std::atomic<bool> done{false};
  std::thread signals([&] {
    while (!done) {
      for (const int sigId : {SIGUSR1, SIGTERM, SIGUSR2, SIGINT})
        application_->signalHandler(sigId);
    }
  });
  EXPECT_EQ(application_->run(), 0);
  done = true;
  signals.join();
}

}  // namespace
