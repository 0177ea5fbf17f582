#include "tests/clients/wire.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "ara/log/capture.h"
#include "clients/TimemasterClientImpl.h"
#include "clients/gnssClientImpl.h"

namespace {

using Position = gnssClient::gnssClientImpl::Position;

constexpr auto gnss = "lumo::services::gnss::GNSS";
constexpr auto gnss_specifier = "GNSS_ProvidedSomeipServiceInstance";

std::vector<Position> sample(std::uint32_t counter) {
  std::vector<Position> samples(1);
  samples[0].positionType = 1;
  samples[0].messageCounter = counter;
  return samples;
}

TEST(Clients_on_the_wire, find_the_services_receive_and_reconnect) {
  Wire wire{61};
  const ara::log::Capture capture;
  test::Seen<std::uint32_t> positions;
  test::Seen<std::uint64_t> offsets;
  test::Seen<std::size_t> others;
  gnssClient::gnssClientImpl gnss_client;
  gnss_client.setPositionCallback([&](const auto& p) { positions.add(*p.messageCounter); });
  gnss_client.setPositionsQualityCallback([&](const auto&) { others.add(1); });
  gnss_client.setSatInfosCallback([&](const auto& satellites) { others.add(satellites.size()); });
  gnss_client.init();
  TimemasterClient::TimemasterClientImpl time_client;
  time_client.setTimesCallback([&](const auto& times) { offsets.add(*times.pltOffset); });
  time_client.init();

  auto provider = wire.gateway().provide(gnss, gnss_specifier);
  update(*provider, "positions", sample(1));
  provider->offer();
  ASSERT_TRUE(capture.WaitFor("generalClientImpl: Instance  1  is available"));
  ASSERT_TRUE(positions.wait_for(1)) << "the value before the subscription";
  update(*provider, "positions", sample(2));
  ASSERT_TRUE(positions.wait_for(2));
  update(*provider, "positionsQuality", std::vector<gnssClient::gnssClientImpl::Quality>(1));
  update(*provider, "posGnssSatInfos", std::vector<gnssClient::gnssClientImpl::Satellite>(32));
  ASSERT_TRUE(others.wait_for(1));
  ASSERT_TRUE(others.wait_for(32));

  const auto times =
      wire.gateway().provide("lumo::services::time::Time", "Time_ProvidedSomeipServiceInstance");
  std::vector<TimemasterClient::TimemasterClientImpl::Times> records(1);
  records[0].pltOffset = 1'234'567'890'123;
  update(*times, "times", records);
  times->offer();
  ASSERT_TRUE(offsets.wait_for(1'234'567'890'123));

  provider->stop_offer();
  provider->offer();
  std::size_t connections = 0;
  ASSERT_TRUE(capture.WaitFor([&](const auto& line) {
    if (line.context == "GNSS" && line.Text() == "generalClientImpl: connected to instance  1")
      ++connections;
    return connections == 2;
  }));
  update(*provider, "positions", sample(3));
  ASSERT_TRUE(positions.wait_for(3)) << "after the service went and came back";

  gnss_client.stop();
  time_client.stop();
  const auto seen = positions.all().size();
  update(*provider, "positions", sample(4));
  test::Seen<std::uint32_t> positions_of_another;
  gnssClient::gnssClientImpl another;
  another.setPositionCallback([&](const auto& p) { positions_of_another.add(*p.messageCounter); });
  another.init();
  ASSERT_TRUE(positions_of_another.wait_for(4));
  EXPECT_EQ(positions.all().size(), seen);
}

TEST(Clients_on_the_wire, stop_at_any_moment_of_a_service_that_comes_and_goes) {
  Wire wire{62};
  const ara::log::Capture capture;
  const auto provider = wire.gateway().provide(gnss, gnss_specifier);
  test::Seen<std::uint32_t> received;
  const auto wait_for_another = [&](std::chrono::milliseconds limit) {
    const auto before = received.all().size();
    static_cast<void>(received.wait([&](const auto& all) { return all.size() > before; }, limit));
  };
  std::atomic<bool> done{false};
  std::thread flapping{[&] {
    for (std::uint32_t i = 0; !done; ++i) {
      update(*provider, "positions", sample(i));
      provider->offer();
      wait_for_another(std::chrono::milliseconds{70});
      provider->stop_offer();
    }
  }};
  std::atomic<bool> stopped{true};
  std::atomic<std::size_t> late{0};
  for (int round = 0; round < 60; ++round) {
    gnssClient::gnssClientImpl client;
    client.setPositionCallback([&](const auto& p) {
      if (stopped) ++late;
      received.add(*p.messageCounter);
    });
    stopped = false;
    client.init();
    wait_for_another(std::chrono::milliseconds{round % 12 * 8});
    client.stop();
    stopped = true;
  }
  done = true;
  flapping.join();
  EXPECT_FALSE(received.all().empty());
  EXPECT_EQ(late, 0U);
}

}  // namespace
