#include "tests/clients/wire.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "clients/gnssClientImpl.h"
#include "tests/support/Capture.h"

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

TEST(Clients_on_the_wire, stop_at_any_moment_of_a_service_that_comes_and_goes) {
  Wire wire{62};
  const test::Capture capture;
  const auto provider = wire.gateway().provide(gnss, gnss_specifier);
  test::Seen<std::uint32_t> received;
  const auto wait_for_another = [&](std::chrono::milliseconds limit) {
    const auto before = received.all().size();
    static_cast<void>(received.wait([&](const auto& all) { return all.size() > before; }, limit));
  };
  const std::jthread flapping{[&](const std::stop_token& stop) {
    for (std::uint32_t i = 0; !stop.stop_requested(); ++i) {
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
  EXPECT_FALSE(received.all().empty());
  EXPECT_EQ(late, 0U);
}

}  // namespace
