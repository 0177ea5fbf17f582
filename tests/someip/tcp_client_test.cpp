/// What happens to connections when things come in an unlucky order. The control thread is played
/// by the test, handler by handler; the network is the loopback.
#include "platform/someip/net/tcp_client.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <cerrno>
#include <functional>
#include <optional>
#include <thread>
#include <utility>

#include "platform/someip/node/node.h"
#include "tests/support/network.h"
#include "tests/support/seen.h"

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

const Address own = make_address(test::address(1));
const Address peer = make_address(test::address(2));

class Played_workers final : public Workers {
 public:
  boost::asio::io_context& control() override { return control_; }
  void post(std::function<void()> work) override { work(); }
  Watch watch(int, std::shared_ptr<Readable>) override { return Watch{}; }
  void unwatch(Watch, int) override {}

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
    auto accepted = acceptor_.accept(none);
    if (none) return false;
    connection_ = std::move(accepted);
    return true;
  }
  /// Has the client ended its side, and has everything before that been read?
  [[nodiscard]] bool ended() {
    std::byte next{};
    return ::recv(connection_.native_handle(), &next, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
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
                  [](const Received&, const Endpoint&, Tasks&) {}}};
};

Header request(std::uint16_t session) {
  Header header;
  header.session = session;
  return header;
}

TEST(Tcp_client, does_not_send_what_has_been_given_up_meanwhile) {
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

TEST(Tcp_client, connects_again_by_itself_and_sends_more_in_total_than_its_queue_holds) {
  Server server;
  server.listen();
  Client client;
  client.limits.tcp_send_queue_bytes = 3 * header_size;  // one is for the cookie
  EXPECT_FALSE(client.tcp.local_end(server.endpoint()));
  std::uint16_t session = 0;
  const auto send = [&] {
    client.tcp.send(server.endpoint(), request(++session), {}, Time::max());
  };
  for (int connection = 1; connection <= 3; ++connection) {
    send();
    send();
    ASSERT_TRUE(client.workers.until([&] { return server.accept(); }));
    for (int round = 0; round < 4; ++round) {
      EXPECT_TRUE(client.workers.until([&] { return server.sessions().size() == session; }));
      send();
    }
    EXPECT_TRUE(client.workers.until([&] { return server.sessions().size() == session; }));
    EXPECT_TRUE(client.tcp.local_end(server.endpoint()));
    server.reset_connection();
    EXPECT_TRUE(client.workers.until([&] { return client.lost == connection; }));
  }
  EXPECT_TRUE(client.workers.until([&] { return server.accept(); })) << "with nothing to send";
  client.tcp.close();
}

TEST(Tcp_client, opens_no_more_connections_than_its_bound) {
  Server first, second;
  Client client;
  client.limits.tcp_connections = 1;
  for (const auto* server : {&first, &second})
    EXPECT_FALSE(client.tcp.local_end(server->endpoint()));
  EXPECT_EQ(client.counters.refused_connections.value(), 1U);
  client.tcp.close();
}

struct Found final : Search_sink {
  void found(const std::vector<std::uint16_t>& instances) override { count = instances.size(); }
  std::size_t count = 0;
};

/// A node that uses the server's service, which the test offers.
struct Using_node {
  Using_node() {
    deployment.discovery.multicast_address =
        make_address("239.255." + std::to_string(test::network()) + ".1");
    node_deployment.addresses = {own};
    node_deployment.watch_link = false;
    service.id = key.service;
    service.major_version = key.major_version;
    deployment.services = {service};
    node.emplace(deployment, node_deployment, workers, nullptr);
    server.listen();
  }
  ~Using_node() {
    std::jthread control([&] { workers.control().run(); });
    node->stop();
    workers.control().stop();
  }
  Using_node(const Using_node&) = delete;
  Using_node& operator=(const Using_node&) = delete;

  void offer(std::uint32_t ttl) {
    Discovery_writer writer;
    static_cast<void>(writer.add({.type = Entry_type::offer_service,
                                  .service = key.service,
                                  .instance = key.instance,
                                  .major_version = key.major_version,
                                  .ttl = ttl},
                                 {Option::unicast(server.endpoint(), tcp_protocol)}));
    discovery.send_to(boost::asio::buffer(writer.message(++session, true)),
                      {own, deployment.discovery.port});
  }
  [[nodiscard]] bool find() {
    node->client().searches().start(service, any_instance, search);
    offer(endless_ttl);
    return workers.until([&] { return search->count == 1; });
  }
  void call(const void* owner) {
    node->client().calls().call(key, 1, Transport::tcp, {}, owner, [](Return_code, Bytes) {});
  }
  void call_no_return(const void* owner) {
    node->client().calls().call_no_return(key, 2, Transport::tcp, {}, owner);
  }

  const Instance_key key{0x1111, 1, 1};
  Deployment deployment;
  Node_deployment node_deployment;
  Service_deployment service;
  Played_workers workers;
  Server server;
  boost::asio::io_context context;
  udp::socket discovery{context, udp::endpoint(peer, deployment.discovery.port)};
  std::uint16_t session = 0;
  const std::shared_ptr<Found> search = std::make_shared<Found>();
  std::optional<Node> node;
};

TEST(Node, opens_no_connection_to_a_server_that_has_gone_when_a_call_is_sent) {
  Using_node node;
  ASSERT_TRUE(node.find());
  node.workers.control().poll();
  node.offer(0);
  node.workers.notice();
  node.call(nullptr);
  ASSERT_EQ(node.search->count, 1U) << "the call comes before the end of the offer is known";
  ASSERT_TRUE(node.workers.until([&] { return node.search->count == 0; }));
  node.workers.control().poll();
  EXPECT_FALSE(node.server.accept());
}

TEST(Node, closes_a_connection_when_the_last_of_its_callers_ends_and_sends_first_what_waits) {
  Using_node node;
  ASSERT_TRUE(node.find());
  const int first = 1;
  const int second = 2;
  const auto accepted = [&] { return node.server.accept(); };
  const auto received = [&](std::size_t count) {
    return [&node, count] { return node.server.sessions().size() == count; };
  };
  const auto ended = [&] { return node.server.ended(); };

  node.call_no_return(&first);
  node.node->client().calls().cancel(&first);
  ASSERT_TRUE(node.workers.until(accepted)) << "it sends what was asked before there was one";
  EXPECT_TRUE(node.workers.until(received(1)));
  EXPECT_TRUE(node.workers.until(ended));

  node.call_no_return(&first);
  node.call(&second);
  ASSERT_TRUE(node.workers.until(accepted));
  EXPECT_TRUE(node.workers.until(received(3)));
  node.node->client().calls().cancel(&first);
  node.call_no_return(&second);
  node.node->client().calls().cancel(&second);
  EXPECT_TRUE(node.workers.until(received(4))) << "on the same connection: the second kept it";
  EXPECT_TRUE(node.workers.until(ended));

  node.call_no_return(&first);
  ASSERT_TRUE(node.workers.until(accepted));
  EXPECT_TRUE(node.workers.until(received(5)));
  const auto begin = std::chrono::steady_clock::now();
  node.node->client().calls().cancel(&first);
  EXPECT_TRUE(node.workers.until(ended));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s) << "with nothing to send";
}

}  // namespace
}  // namespace someip
