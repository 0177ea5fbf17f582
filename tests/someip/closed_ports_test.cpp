#include "platform/someip/net/closed_ports.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>

namespace someip {
namespace {

class Closed_ports_test : public testing::TestWithParam<const char*> {};

TEST_P(Closed_ports_test,
       come_back_with_the_destination_and_the_message_and_disturb_no_other_send) {
  const Address loopback = boost::asio::ip::make_address(GetParam());
  Udp_socket sender(loopback), open(loopback);
  if (sender.bind({loopback, 0})) GTEST_SKIP() << "no " << loopback;
  ASSERT_FALSE(open.bind({loopback, 0}));
  Endpoint nobody;
  {
    Udp_socket brief(loopback);
    ASSERT_FALSE(brief.bind({loopback, 0}));
    nobody = brief.local();
  }
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
}

INSTANTIATE_TEST_SUITE_P(Both_families, Closed_ports_test, testing::Values("127.0.0.1", "::1"));

}  // namespace
}  // namespace someip
