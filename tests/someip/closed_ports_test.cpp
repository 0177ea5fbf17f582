#include "platform/someip/net/closed_ports.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <boost/asio/io_context.hpp>

#include "tests/support/seen.h"

namespace someip {
namespace {

Endpoint closed_port(const Address& address) {
  Udp_socket brief(address);
  EXPECT_FALSE(brief.bind({address, 0}));
  return brief.local();
}

class Closed_port : public testing::TestWithParam<const char*> {};

TEST_P(Closed_port, come_back_with_the_destination_and_the_message_and_disturb_no_other_send) {
  const Address loopback = boost::asio::ip::make_address(GetParam());
  Udp_socket sender(loopback), open(loopback);
  if (sender.bind({loopback, 0})) GTEST_SKIP() << "no " << loopback;
  ASSERT_FALSE(open.bind({loopback, 0}));
  const Endpoint nobody = closed_port(loopback);
  sender.keep_errors();

  Header header;
  header.service = 0x1111;
  header.method = 0x8001;
  std::vector<std::byte> datagram(header_size + 1000);
  std::ranges::copy(header_bytes(header, 1000), datagram.begin());
  ASSERT_FALSE(sender.send(datagram, Socket_address(nobody)));
  pollfd wait{sender.descriptor(), 0, 0};
  ASSERT_EQ(::poll(&wait, 1, 10'000), 1);

  EXPECT_FALSE(sender.send(datagram, Socket_address(open.local())));
  const auto error = next_error(sender.descriptor());
  ASSERT_TRUE(error && error->returned);
  EXPECT_EQ(error->returned->destination, nobody);
  EXPECT_EQ(error->returned->header.service, header.service);
  EXPECT_EQ(error->returned->header.method, header.method);
  EXPECT_FALSE(next_error(sender.descriptor()));

  ASSERT_FALSE(sender.send(datagram, Socket_address(nobody)));
  ASSERT_EQ(::poll(&wait, 1, 10'000), 1);
  ASSERT_FALSE(open.send(datagram, Socket_address(sender.local())));
  std::array<Udp_socket::Arrival, 1> arrivals{};
  arrivals[0].begin = datagram;
  EXPECT_EQ(sender.receive(arrivals), 1U) << "behind the error";
}

TEST(Closed_ports, are_all_noticed_when_more_come_at_once_than_fit_into_a_turn) {
  const Address loopback = boost::asio::ip::make_address("127.0.0.1");
  boost::asio::io_context control;
  int reported = 0;
  Closed_ports ports(control, [&](const Returned_datagram&) { ++reported; });
  Udp_socket sender(loopback);
  ASSERT_FALSE(sender.bind({loopback, 0}));
  ports.add(sender);
  const Socket_address nobody(closed_port(loopback));
  for (int i = 0; i < 100; ++i)
    ASSERT_FALSE(sender.send(header_bytes({}, 0), nobody));
  ports.start();
  EXPECT_TRUE(test::eventually([&] { return control.poll(), reported == 100; })) << reported;
  ports.stop();
}

INSTANTIATE_TEST_SUITE_P(Both_families, Closed_port, testing::Values("127.0.0.1", "::1"));

}  // namespace
}  // namespace someip
