/// What happens to connections when things come in an unlucky order. The control thread is played
/// by the test, handler by handler; the network is the loopback.
#include "platform/someip/tcp_client.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <cerrno>
#include <functional>
#include <thread>

#include "platform/someip/node.h"
#include "tests/support/Seen.h"

/// As the system answers when a connection has broken before anybody asks.
extern "C" int getpeername(int, sockaddr*, socklen_t*) noexcept {
  errno = ENOTCONN;
  return -1;
}

namespace someip {
namespace {

using boost::asio::ip::make_address;
using boost::asio::ip::tcp;
using boost::asio::ip::udp;
using namespace std::chrono_literals;

const Address own = make_address("127.44.0.1");
const Address peer = make_address("127.44.0.2");

class Played_workers final : public Workers {
 public:
  boost::asio::io_context& control() override { return control_; }
  void post(std::function<void()> work) override { work(); }
  Watch watch(int, std::shared_ptr<Readable>) override { return Watch{}; }
  void unwatch(Watch, int) override {}
  void pause(Watch, int) override {}
  void resume(Watch, int) override {}

  [[nodiscard]] bool until(const std::function<bool()>& condition) {
    return test::eventually([&] {
      control_.poll();
      return condition();
    });
  }
  /// The control thread learns what has arrived, and does not act on it yet.
  void notice() {
    boost::asio::post(control_, [] {});
    control_.poll_one();
  }

 private:
  boost::asio::io_context control_{1};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard_{
      control_.get_executor()};
};

/// A server that the test plays.
class Server {
 public:
  Server() {
    acceptor_.open(tcp::v4());
    acceptor_.bind({peer, 0});
    acceptor_.non_blocking(true);
  }
  [[nodiscard]] Endpoint endpoint() const { return endpoint_of(acceptor_.local_endpoint()); }
  void listen() { acceptor_.listen(); }
  [[nodiscard]] bool accept() {
    boost::system::error_code none;
    acceptor_.accept(connection_, none);
    return !none;
  }
  void reset_connection() {
    connection_.set_option(tcp::socket::linger(true, 0));
    connection_.close();
  }
  /// The session ids of the messages without payload that have come, cookies left out.
  [[nodiscard]] std::vector<int> sessions() {
    std::vector<std::byte> bytes(connection_.available());
    boost::asio::read(connection_, boost::asio::buffer(bytes));
    reader_.append(bytes);
    while (const auto message = reader_.next())
      sessions_.push_back(message->header.session);
    return sessions_;
  }

 private:
  boost::asio::io_context context_;
  tcp::acceptor acceptor_{context_};
  tcp::socket connection_{context_};
  Stream_reader reader_{1000};
  std::vector<int> sessions_;
};

struct Client {
  Limits limits;
  Counters counters;
  Log log{nullptr};
  Played_workers workers;
  int lost = 0;
  Tcp_client tcp{own,
                 limits,
                 workers,
                 counters,
                 log,
                 {[](const Endpoint&) {}, [this](const Endpoint&) { ++lost; },
                  [](Received, const Endpoint&, Tasks&) {}}};
};

Header request(std::uint16_t session) {
  Header header;
  header.session = session;
  return header;
}

TEST(TcpClient, connects_again_after_a_connection_that_could_not_name_its_peer) {
  Server server;
  server.listen();
  Client client;
  EXPECT_FALSE(client.tcp.local_end(server.endpoint()));
  EXPECT_TRUE(client.workers.until([&] { return server.accept(); }));
  EXPECT_TRUE(
      client.workers.until([&] { return client.tcp.local_end(server.endpoint()).has_value(); }));
  server.reset_connection();
  EXPECT_TRUE(client.workers.until([&] { return client.lost == 1; }));
  EXPECT_TRUE(client.workers.until([&] { return server.accept(); }));
  client.tcp.close();
}

TEST(TcpClient, does_not_send_what_has_been_given_up_meanwhile) {
  Server server;
  Client client;
  client.limits.tcp_send_queue_bytes = 3 * header_size;
  const auto now = std::chrono::steady_clock::now();
  const auto send = [&](std::uint16_t session, Time deadline) {
    client.tcp.send(server.endpoint(), request(session), {}, deadline);
  };
  for (std::uint16_t session = 1; session <= 3; ++session)
    send(session, now);
  send(4, Time::max());
  send(5, now);
  server.listen();
  ASSERT_TRUE(client.workers.until([&] { return server.accept(); }));
  EXPECT_TRUE(client.workers.until([&] { return !server.sessions().empty(); }));
  EXPECT_THAT(server.sessions(), testing::ElementsAre(4));
  client.tcp.close();
}

struct Found final : Search {
  void found(const std::vector<std::uint16_t>& instances) override { count = instances.size(); }
  std::size_t count = 0;
};

TEST(Node, opens_no_connection_to_a_server_that_has_gone_when_a_call_is_sent) {
  Deployment deployment;
  deployment.discovery.multicast_address = make_address("239.255.44.1");
  Node_deployment node_deployment;
  node_deployment.addresses = {own};
  node_deployment.watch_link = false;
  Service_deployment service;
  service.id = 0x1111;
  service.major_version = 1;
  deployment.services = {service};
  Played_workers workers;
  Node node(deployment, node_deployment, workers, nullptr);

  Server server;
  server.listen();
  boost::asio::io_context context;
  udp::socket discovery(context, udp::endpoint(peer, deployment.discovery.port));
  std::uint16_t session = 0;
  const auto offer = [&](std::uint32_t ttl) {
    Discovery_writer writer;
    static_cast<void>(writer.add({.type = Entry_type::offer_service,
                                  .service = service.id,
                                  .instance = 1,
                                  .major_version = service.major_version,
                                  .ttl = ttl},
                                 {Option::unicast(server.endpoint(), tcp_protocol)}));
    discovery.send_to(boost::asio::buffer(writer.message(++session, true)),
                      {own, deployment.discovery.port});
  };
  const auto search = std::make_shared<Found>();
  node.start_search(service, any_instance, search);
  offer(endless_ttl);
  ASSERT_TRUE(workers.until([&] { return search->count == 1; }));

  workers.control().poll();
  offer(0);
  workers.notice();
  node.call({service.id, 1, service.major_version}, 1, Transport::tcp, {}, nullptr,
            [](Return_code, Bytes) {});
  ASSERT_EQ(search->count, 1U) << "the call comes before the end of the offer is known";
  ASSERT_TRUE(workers.until([&] { return search->count == 0; }));
  workers.control().poll();
  EXPECT_FALSE(server.accept());

  std::jthread control([&] { workers.control().run(); });
  node.stop();
  workers.control().stop();
}

}  // namespace
}  // namespace someip
