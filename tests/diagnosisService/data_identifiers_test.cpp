#include <limits>

#include "tests/diagnosisService/diagnosis.h"
#include "tests/support/seen.h"

namespace diagnosisService {
namespace {

using ::testing::ElementsAre;

TEST_F(Diagnosis, the_map_matched_position_is_read_in_scaled_numbers) {
  service->init(hour_ms);
  service->refresh_map_matched_position({.latitude = 48.137154,
                                         .longitude = -11.576124,
                                         .altitude = 519.25F,
                                         .heading = -90.0F,
                                         .speed = 13.5F,
                                         .message_counter = 99,
                                         .seconds = 1'700'000'000,  // 2023-11-14, 22:13:20
                                         .nanoseconds = 250'000'000,
                                         .status_map = 3,
                                         .status_map_matching = 2,
                                         .position_source = 4});

  EXPECT_EQ(read("PositioningMMPos"),
            (Bytes{0, 0, 0, 5, 0x0B, 0x35, 0x32, 0xAD, 0xD0,  // 48 137 154 000
                   0, 0, 0, 5, 0xFD, 0x4E, 0x02, 0x5D, 0xA0,  // -11 576 124 000
                   0, 0, 0, 3, 0x00, 0xCA, 0xD5,              // 51 925 cm
                   0, 0, 0, 3, 0x7A, 0x12, 0x19,              // 8 000 025 times 10 ms
                   0, 0, 0, 2, 0x3F, 0x42}));
  const auto record = service->map_matched_position();
  EXPECT_THAT(record.heading, ElementsAre(0x69, 0x78));  // 270.00 deg
  EXPECT_THAT(record.speed, ElementsAre(0x05, 0x46));    // 13.50 m/s
  EXPECT_THAT(record.day, ElementsAre(0x4C, 0xDB));      // 19 675
  EXPECT_EQ(record.message_counter, 99);

  Map_matched_position position;
  position.heading = 359.996F;
  service->refresh_map_matched_position(position);
  EXPECT_THAT(service->map_matched_position().heading, ElementsAre(0, 0));
}

TEST_F(Diagnosis, a_map_matched_position_with_gaps_says_so) {
  service->init(hour_ms);
  Map_matched_position position;
  position.latitude = std::numeric_limits<double>::quiet_NaN();
  position.longitude = 1000.0;  // more than 40 bits hold
  position.altitude = -1e9F;
  position.position_source = 16;
  position.seconds = 86'400;
  position.nanoseconds = 1'500'000'000;  // more than a second has
  service->refresh_map_matched_position(position);
  EXPECT_EQ(read("PositioningMMPos"),
            (Bytes{0, 0, 0, 5,    0, 0, 0, 0, 0, 0, 0, 0, 5,  0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0,
                   0, 0, 3, 0x80, 0, 0, 0, 0, 0, 3, 0, 0, 99, 0,    0,    0,    2,    0xFE, 0xFF}));
}

TEST_F(Diagnosis, data_bus_faults_are_entries_that_count_their_appearances_to_the_end) {
  service->init(hour_ms);
  using enum Data_bus_fault;
  const auto read_not_available = [&] { return read("BDPSomeipDataBusServiceNotAvailable"); };
  service->set_data_bus_fault(not_available, Data_bus_element::time, false);
  EXPECT_EQ(read_not_available(), (Bytes{0, 0, 0, 0})) << "an absent fault leaves no entry";

  for (int repeated = 0; repeated < 2; ++repeated)
    service->set_data_bus_fault(not_available, Data_bus_element::gnss, true);
  EXPECT_EQ(read_not_available(), (Bytes{0, 0, 0, 5, 1, 0, 1, 0, 1}));
  const auto come_and_go = [&](int times) {
    for (int i = 0; i < times; ++i) {
      service->set_data_bus_fault(not_available, Data_bus_element::time_times, true);
      service->set_data_bus_fault(not_available, Data_bus_element::time_times, false);
    }
  };
  come_and_go(0x103);
  service->set_data_bus_fault(not_available, Data_bus_element::gnss, false);
  EXPECT_EQ(read_not_available(), (Bytes{0, 0, 0, 10, 1, 0, 0, 0, 1, 2, 1, 0, 1, 3}));
  EXPECT_EQ(service->data_bus_fault_count(not_available), 0x104U);
  come_and_go(0x1'0000);
  EXPECT_EQ(read_not_available(), (Bytes{0, 0, 0, 10, 1, 0, 0, 0, 1, 2, 1, 0, 0xFF, 0xFF}))
      << "does not start anew";
  for (const auto* other : {"ErrorValueReceived", "Implausible"})
    EXPECT_EQ(read(std::string{"BDPSomeipDataBusService"} + other), (Bytes{0, 0, 0, 0}));

  const auto begun = Clock::now();
  service->set_data_bus_fault(not_available, Data_bus_element::gnss, true);
  ASSERT_TRUE(test::eventually([&] { return Clock::now() > begun + 2ms; }));
  const auto end = Clock::now();
  service->set_data_bus_fault(not_available, Data_bus_element::gnss, false);
  EXPECT_EQ(service->state(end).faults[0].sinceMs, 0U) << "since its end";
}

TEST_F(Diagnosis, a_required_service_that_is_not_found_within_the_time_out_is_not_available) {
  service->init(hour_ms);
  const auto not_available = [&] { return read("BDPSomeipDataBusServiceNotAvailable"); };
  service->require_service(Data_bus_element::gnss, start);
  service->require_service(Data_bus_element::time, start);
  service->set_data_bus_fault(Data_bus_fault::not_available, Data_bus_element::time, false);
  service->evaluate(start + 1h);
  EXPECT_EQ(not_available(), (Bytes{0, 0, 0, 0})) << "exactly the time-out is not late yet";
  service->evaluate(start + 1h + 1ns);
  service->evaluate(start + 2h);
  EXPECT_EQ(not_available(), (Bytes{0, 0, 0, 5, 1, 0, 1, 0, 1})) << "once, and not the found one";
  service->set_data_bus_fault(Data_bus_fault::not_available, Data_bus_element::gnss, false);
  service->evaluate(start + 3h);
  EXPECT_EQ(not_available(), (Bytes{0, 0, 0, 5, 1, 0, 0, 0, 1}));
}

}  // namespace
}  // namespace diagnosisService
