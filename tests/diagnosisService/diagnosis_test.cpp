#include "tests/diagnosisService/diagnosis.h"

#include <fstream>
#include <future>
#include <iterator>
#include <limits>
#include <map>
#include <sstream>
#include <thread>
#include <utility>

#include "tests/support/seen.h"

namespace diagnosisService {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t dead_reckoning = 0x83D104;
constexpr std::uint32_t map_matched = 0x83D103;

TEST_F(Diagnosis, init_offers_the_data_identifiers_with_the_initial_statuses) {
  EXPECT_THROW(service->init(0), std::invalid_argument);
  EXPECT_THROW(service->init(std::numeric_limits<std::uint64_t>::max()), std::invalid_argument);
  EXPECT_THAT(runtime.offered(), IsEmpty());
  service->init(5000);
  EXPECT_EQ(inputs(), Bytes(11, 2));
  EXPECT_EQ(outputs(), (Bytes{2, 2, 0}));
  EXPECT_EQ(read("PositioningMMPos"),
            (Bytes{0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0,
                   0, 0, 3, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 2, 0, 0}));
  EXPECT_EQ(read("PositioningStatusSystem"), (Bytes{0, 2, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 2, 2}));
  EXPECT_THAT(runtime.offered(), SizeIs(std::tuple_size_v<lumo::services::diag::Data_identifiers>));
  EXPECT_THAT(runtime.call(runtime.offered().front(), "Cancel", no_meta_info).payload, IsEmpty());
}

TEST(Data_identifiers_page, lists_every_monitor_with_its_status_byte) {
  std::ifstream file{POS_DOCS "/data-identifiers.md"};
  const std::string page{std::istreambuf_iterator<char>{file}, {}};
  const std::map<Status_group, std::string> places{{Status_group::input, "d_14a0 byte "},
                                                   {Status_group::output, "d_14a1 byte "},
                                                   {Status_group::system, "d_14a3 byte "},
                                                   {Status_group::none, "none, always passed"}};
  for (const auto& monitor : monitor_table) {
    std::ostringstream line;
    line << "| 0x" << std::hex << std::uppercase << monitor.identifier << std::dec << " | "
         << monitor.name << " | " << places.at(monitor.group);
    if (monitor.group != Status_group::none) line << int{monitor.byte};
    EXPECT_THAT(page, ::testing::HasSubstr(line.str() + " |\n"));
  }
}

TEST_F(Diagnosis, the_sensor_setup_decides_what_is_available_and_evaluated) {
  service->init(hour_ms);
  service->data_received(gnss, start);
  service->data_received(0x83D10B, start);
  service->evaluate(start);
  EXPECT_EQ(inputs(), Bytes(11, 2)) << "not known yet";
  service->new_sensor_setup({true});
  service->evaluate(start);
  auto setup = diagnosisServiceImpl::Sensor_setup{};
  setup[0] = setup[8] = true;
  service->new_sensor_setup(setup);
  EXPECT_EQ(inputs(), (Bytes{0, 3, 3, 3, 3, 3, 3, 3, 2, 3, 3})) << "Nominal stays";

  // Off means off, whatever arrives and however long it takes.
  for (const auto& monitor : monitor_table)
    service->data_received(monitor.identifier, start + 1h);
  service->evaluate(start + 1h);
  EXPECT_EQ(inputs(), (Bytes{0, 3, 3, 3, 3, 3, 3, 3, 0, 3, 3}));
  service->evaluate(start + 3h);
  EXPECT_EQ(inputs(), (Bytes{1, 3, 3, 3, 3, 3, 3, 3, 1, 3, 3}));

  // On again is a new start.
  setup = {true, true};
  service->new_sensor_setup(setup);
  EXPECT_EQ(inputs(), (Bytes{2, 2, 3, 3, 3, 3, 3, 3, 3, 3, 3}));
}

TEST_F(Diagnosis, of_two_sensor_setups_at_once_one_holds_for_flags_and_statuses) {
  service->init(hour_ms);
  service->data_received(0x83D102, start);
  log.on_record([&, nested = false](const auto& record) mutable {
    if (record.text() != "sensor GNSS                ON" || std::exchange(nested, true)) return;
    service->new_sensor_setup({false, true});
  });
  service->new_sensor_setup({true});
  service->evaluate(start);
  EXPECT_EQ(inputs(), (Bytes{3, 0, 3, 3, 3, 3, 3, 3, 3, 3, 3}));
}

TEST_F(Diagnosis, every_monitor_reports_its_own_status_byte) {
  service->init(hour_ms);
  diagnosisServiceImpl::Sensor_setup all;
  all.fill(true);
  service->new_sensor_setup(all);
  auto expected = Bytes(11, 2);
  std::size_t sensor = 0;
  for (const auto monitor : {0x83D101U, 0x83D102U, 0x83D10EU, 0x83D106U, 0x83D107U, 0x83D108U,
                             0x83D109U, 0x83D10AU, 0x83D10BU, 0x83D10CU, 0x83D10DU}) {
    service->data_received(monitor, start);
    service->evaluate(start);
    expected[sensor++] = 0;
    EXPECT_EQ(inputs(), expected);
    EXPECT_EQ(service->status(monitor), Status::nominal);
  }
  for (const auto& [monitor, byte] : std::vector<std::pair<std::uint32_t, std::size_t>>{
           {0x83D100, 0}, {0x83D121, 1}, {0x83D120, 3}, {0x83D122, 12}, {0x83D123, 0}}) {
    service->set_system_status(byte, 3);
    EXPECT_EQ(service->status(monitor), 3) << monitor_name(monitor);
    service->set_system_status(byte, 0);
  }
  EXPECT_THROW(service->set_system_status(14, 0), std::out_of_range);
  EXPECT_EQ(service->status(0x83D501), 0);
  EXPECT_EQ(service->status(1), 0);
}

TEST_F(Diagnosis, data_that_stays_away_is_an_error_until_it_comes_back) {
  run_with_gnss();
  service->data_received(gnss, start);
  EXPECT_EQ(service->status(gnss), Status::init) << "only an evaluation changes a status";
  service->evaluate(start);
  service->evaluate(start + 1h);
  EXPECT_EQ(service->status(gnss), Status::nominal) << "exactly the time-out is not late yet";
  service->evaluate(start + 1h + 1ns);
  service->evaluate(start + 2h);
  EXPECT_EQ(service->status(gnss), Status::error);
  const auto age = [&](Clock::time_point now) { return service->state(now).statuses[0].sinceMs; };
  EXPECT_NEAR(static_cast<double>(age(start + 2h)), 3'600'000, 1)
      << "since the first of the two evaluations";
  service->data_received(gnss, start + 2h);
  service->evaluate(start + 2h);
  EXPECT_EQ(service->status(gnss), Status::nominal);
  EXPECT_EQ(age(start + 2h + 5s), 5000);
  EXPECT_EQ(age(start), 0) << "not before the change";
  EXPECT_THAT(actions("POS_Input_GNSS"), ElementsAre(Bytes{0}, Bytes{1}, Bytes{0}));
}

TEST_F(Diagnosis, what_never_received_data_stays_init_even_right_after_boot) {
  service->data_received(gnss, start);  // before init, which is not data
  run_with_gnss();
  for (const auto now : {Clock::time_point{1s}, start, start + 5h}) {
    service->evaluate(now);
    EXPECT_EQ(service->status(gnss), Status::init);
    EXPECT_EQ(outputs(), (Bytes{2, 2, 0}));
  }
  service->data_received(1, start);
  service->data_received(0xFFFFFFFF, start);
  EXPECT_THAT(log.texts("DSRV"), IsEmpty());
}

TEST_F(Diagnosis, an_output_follows_its_system_function_before_its_own_data) {
  run_with_gnss();
  for (const auto& [system, monitor, output] :
       {std::tuple{system_map_matching, map_matched, 0U}, {system_pgf, dead_reckoning, 1U}}) {
    service->data_received(monitor, start);
    service->evaluate(start);
    EXPECT_EQ(outputs()[output], Status::nominal);
    for (const std::uint8_t governing : {Status::error, Status::init}) {
      service->set_system_status(system, governing);
      service->evaluate(start);
      EXPECT_EQ(outputs()[output], governing);
    }
    service->set_system_status(system, Status::nominal);
    service->evaluate(start + 1h + 1ns);
    EXPECT_EQ(outputs()[output], Status::init) << "late data does not lead out of Init";
    service->data_received(monitor, start + 1h);
    service->evaluate(start + 1h);
    service->evaluate(start + 3h);
    EXPECT_EQ(outputs()[output], Status::error);
    EXPECT_EQ(service->state(start + 4h).statuses[11 + output].sinceMs, hour_ms);
  }
  EXPECT_EQ(outputs()[2], Status::nominal) << "nothing evaluates the static output";
}

TEST_F(Diagnosis, clearing_turns_an_error_nominal_and_gives_it_a_fresh_start) {
  run_with_gnss();
  bring_gnss_into_error();
  service->clear(gnss, start + 2h);
  EXPECT_EQ(service->status(gnss), Status::nominal);
  service->evaluate(start + 3h);
  EXPECT_EQ(service->status(gnss), Status::nominal);
  service->evaluate(start + 3h + 1ns);
  EXPECT_EQ(service->status(gnss), Status::error);

  service->clear(dead_reckoning, start);
  EXPECT_EQ(service->status(dead_reckoning), Status::init) << "only an Error is cleared";
  service->set_system_status(0, Status::error);
  service->clear(0x83D100, start);
  EXPECT_EQ(service->status(0x83D100), Status::error) << "system functions are not cleared";
}

TEST_F(Diagnosis, the_event_manager_clears_and_restarts_a_monitor_whose_error_is_a_failed_test) {
  run_with_gnss();
  bring_gnss_into_error();
  for (const auto reason : Bytes{1, 2, 3, 255, 0})  // of which 3 and 255 are none
    init_monitor("POS_Input_GNSS", reason);
  EXPECT_EQ(service->status(gnss), Status::nominal);
  EXPECT_THAT(actions("POS_Input_GNSS"),
              ElementsAre(Bytes{0}, Bytes{1}, Bytes{1}, Bytes{1}, Bytes{0}));

  service->set_system_status(0, Status::error);
  for (const auto& [monitor, action] :
       std::vector<std::pair<std::string, std::uint8_t>>{{"POS_Output_DeadReckoning", 0},  // Init
                                                         {"POS_Input_Odometry", 0},  // NotAvailable
                                                         {"BDP_data_bus_service_not_available", 0},
                                                         {"POS_LaneMatching_System", 1}}) {
    init_monitor(monitor, 1);
    EXPECT_THAT(actions(monitor), ElementsAre(Bytes{action})) << monitor;
  }
}

TEST_F(Diagnosis, the_last_event_tells_the_last_result_also_when_senders_overtake_each_other) {
  run_with_gnss();
  bring_gnss_into_error();
  runtime.on_send = [&, sending = false]() mutable {
    if (std::exchange(sending, true)) return;
    init_monitor("POS_Input_GNSS", 0);  // its kPassed leaves before the kFailed under way
  };
  service->send_result(gnss);
  EXPECT_THAT(actions("POS_Input_GNSS"),
              ElementsAre(Bytes{0}, Bytes{1}, Bytes{0}, Bytes{1}, Bytes{0}));
}

TEST_F(Diagnosis, results_before_the_monitors_are_offered_and_after_the_stop_are_dropped) {
  service->init(hour_ms);
  service->send_result(gnss);
  service->start_monitors();
  service->sendEvent(7, mw::dm::dem::MonitorActionType::kPassed);
  service->stop();
  service->send_result(gnss);
  EXPECT_THAT(actions("POS_Input_GNSS"), IsEmpty());
  EXPECT_THAT(log.texts("DSRV"),
              ::testing::Contains("diagnosticMonitorServiceImpl::sendEvent(): ignore, skeleton not "
                                  "ready yet!")
                  .Times(3));
}

TEST_F(Diagnosis, a_second_init_resets_what_the_first_one_and_the_data_made) {
  run_with_gnss();
  bring_gnss_into_error();
  service->set_data_bus_fault(Data_bus_fault::not_available, Data_bus_element::gnss, true);
  service->require_service(Data_bus_element::time, start);
  service->init(20);  // evaluated every 2 ms, in place of every 360 s
  EXPECT_EQ(inputs(), Bytes(11, 2));
  EXPECT_TRUE(test::eventually([this] {
    return read("BDPSomeipDataBusServiceNotAvailable") == Bytes{0, 0, 0, 5, 2, 0, 1, 0, 1};
  })) << "waits anew for the required one";
  EXPECT_THAT(runtime.offered(), SizeIs(7 + monitor_table.size()));
  service->evaluate(start);
  EXPECT_EQ(service->status(gnss), Status::init) << "the data of before is forgotten";
  service->data_received(gnss);
  EXPECT_TRUE(test::eventually([this] { return service->status(gnss) == Status::error; }))
      << "evaluated as often as the second init says";
}

TEST_F(Diagnosis, evaluation_runs_by_itself_until_the_stop_which_does_not_wait_for_the_next) {
  service->init(200);  // evaluated every 20 ms
  service->new_sensor_setup({true});
  service->data_received(gnss);
  const std::string changing = "Changing of state, ID = POS_Input_GNSS , prev status = ";
  EXPECT_TRUE(log.wait_for(changing + "Init , new status = Nominal"));
  EXPECT_TRUE(log.wait_for(changing + "Nominal , new status = Error"));
  service->stop();
  service->stop();
  EXPECT_THAT(runtime.offered(), IsEmpty());

  service = std::make_unique<diagnosisServiceImpl>();
  service->init(diagnosisServiceImpl::longest_timeout_ms);  // evaluated every 144 min
  auto stopped = std::async(std::launch::async, [&] { service->stop(); });
  EXPECT_EQ(stopped.wait_for(30s), std::future_status::ready);
}

TEST(Evaluation_timer, makes_up_for_no_evaluation_after_a_pause) {
  test::Seen<Clock::time_point> calls;
  Evaluation_timer timer{[&] {
    calls.add(Clock::now());
    if (calls.all().size() == 1) std::this_thread::sleep_for(200ms);
  }};
  timer.start(2ms);
  ASSERT_TRUE(calls.wait_count(50));
  timer.stop();
  EXPECT_GT(calls.all()[49] - calls.all()[1], 50ms);
}

TEST_F(Diagnosis, a_stop_in_the_middle_of_the_start_leaves_nothing_offered) {
  for (int round = 0; round < 50; ++round) {
    service = nullptr;
    service = std::make_unique<diagnosisServiceImpl>();
    {
      const std::jthread signal{[&] { service->stop(); }};
      service->init(1);
      service->start_monitors();
    }
    EXPECT_THAT(runtime.offered(), IsEmpty());
  }
}

TEST_F(Diagnosis, a_read_beside_updates_and_evaluations_is_never_torn) {
  service->init(1);
  service->start_monitors();
  service->new_sensor_setup({true});
  std::vector<std::jthread> threads;
  const auto repeat = [&](auto work) {
    threads.emplace_back([work](const std::stop_token& stop) mutable {
      while (!stop.stop_requested())
        work();
    });
  };
  repeat([&, degrees = 1.0]() mutable {
    Map_matched_position position;
    position.latitude = position.longitude = degrees;
    degrees = 3.0 - degrees;
    service->refresh_map_matched_position(position);
  });
  repeat([&] { service->data_received(gnss); });
  repeat([&] { init_monitor("POS_Input_GNSS", 0); });
  // The evaluations, every millisecond, find data and the lack of it in turns.
  for (int i = 0; i < 2000; ++i) {
    const auto bytes = read("PositioningMMPos");
    EXPECT_TRUE(std::equal(bytes.begin() + 4, bytes.begin() + 9, bytes.begin() + 13));
  }
}

TEST_F(Diagnosis, the_end_waits_for_an_event_that_is_being_sent) {
  std::promise<void> in_send;
  std::promise<void> may_go_on;
  runtime.on_send = [&] {
    in_send.set_value();
    may_go_on.get_future().wait();
  };
  run_with_gnss();
  std::thread sender{[&] { service->send_result(gnss); }};
  in_send.get_future().wait();
  auto ended = std::async(std::launch::async, [&] { service = nullptr; });
  EXPECT_EQ(ended.wait_for(50ms), std::future_status::timeout);
  may_go_on.set_value();
  sender.join();
  EXPECT_EQ(ended.wait_for(30s), std::future_status::ready);
}

}  // namespace
}  // namespace diagnosisService
