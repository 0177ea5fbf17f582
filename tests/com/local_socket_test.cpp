/// A client without an address, through the Unix socket of the provider's node.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "platform/linux/com/socket_paths.h"
#include "platform/someip/discovery/discovery_message.h"
#include "platform/someip/net/local_path.h"
#include "platform/someip/wire/local_frame.h"
#include "tests/com/test_network.h"
#include "tests/support/error_of.h"
#include "tests/support/temporary_folder.h"

namespace {

using test::bytes;
using test::counter;
using test::error_of;
using test::eventually;
using test::Seen;
using test::Subscription;
using testing::HasSubstr;
using tq::com::Payload;
using tq::com::Response;
using tq::com::Return_code;

constexpr std::uint16_t echo = 1, tick = 0x8001, value = 0x8002;

class Local_socket : public testing::Test {
 protected:
  void start_server() {
    server = tq::com::make_runtime(deployment, "server");
    provider = server->provide("test::Service", "first");
    provider->set_method_handler(echo, [](Payload arguments) {
      return Response{Return_code::ok, {arguments.begin(), arguments.end()}};
    });
    provider->notify(value, bytes(text_of_value));
    provider->offer();
  }
  void stop_server() {
    provider.reset();
    server.reset();
  }
  [[nodiscard]] std::unique_ptr<tq::com::Runtime> client() const {
    return tq::com::make_local_runtime(deployment, "client", path);
  }
  /// The answer of the echo, or the code of its refusal.
  static std::string call(tq::com::Consumer& consumer, const std::string& arguments) {
    Seen<std::string> answers;
    consumer.call(echo, bytes(arguments), [&](Return_code code, Payload payload) {
      answers.add(code == Return_code::ok ? test::text(payload)
                                          : std::to_string(static_cast<int>(code)));
    });
    EXPECT_TRUE(answers.wait_count(1));
    return answers.all().front();
  }
  [[nodiscard]] int connect() const {
    std::error_code error;
    const int descriptor = someip::connect_local(path, error);
    EXPECT_FALSE(error) << error.message();
    return descriptor;
  }
  static bool is_closed(int descriptor) {
    std::byte byte{};
    return eventually([&] {
      const auto count = ::recv(descriptor, &byte, 1, MSG_DONTWAIT);
      return count == 0 || (count < 0 && errno == ECONNRESET);
    });
  }

  Temporary_folder folder;
  const std::string path = folder / "server.sock";
  const std::string text_of_value = std::string(50'000, 'v');
  someip::Deployment deployment = [this] {
    auto deployed = test::deployment();
    const auto named_server = [](const auto& node) { return node.name == "server"; };
    std::ranges::find_if(deployed.nodes, named_server)->socket_path = path;
    return deployed;
  }();
  std::unique_ptr<tq::com::Runtime> server;
  std::unique_ptr<tq::com::Provider> provider;
};

TEST_F(Local_socket, calls_fields_events_and_long_messages_take_it_on_either_transport) {
  auto& service = deployment.services.front();
  service.allowed_peers = {boost::asio::ip::make_address(test::address(77))};
  deployment.limits.message_bytes = someip::header_size + text_of_value.size();
  for (const auto transport : {someip::Transport::udp, someip::Transport::tcp}) {
    service.methods[0].transport = service.events[0].transport = transport;
    service.instances[0].tcp_port = 31001;
    start_server();
    Subscription ticks;
    Subscription values;
    const auto runtime = client();
    const test::Finder finder(*runtime, "test::Service");
    const auto consumer = finder.connect();
    EXPECT_EQ(call(*consumer, "hello"), "hello");
    EXPECT_EQ(call(*consumer, text_of_value), text_of_value);
    ticks.start(*consumer, "tick");
    values.start(*consumer, "value");
    ASSERT_TRUE(values.received.wait_for(text_of_value));
    provider->notify(tick, bytes("one"));
    provider->notify(tick, bytes("two"));
    ASSERT_TRUE(ticks.received.wait_count(2));
    EXPECT_THAT(ticks.received.all(), testing::ElementsAre("one", "two"));
    consumer->unsubscribe("tick");
    EXPECT_EQ(call(*consumer, "again"), "again");
    EXPECT_EQ(counter(*runtime, "datagramsReceived") + counter(*runtime, "datagramsSent"), 0u);
    EXPECT_THAT(error_of([&] { (void)runtime->provide("test::Service", "second"); }),
                HasSubstr("provides no service"));
    stop_server();
    EXPECT_TRUE(values.states.wait_for(false));
  }
}

TEST_F(Local_socket, a_client_is_there_again_when_the_provider_is) {
  Subscription values;
  const auto runtime = client();  // the provider comes later
  const test::Finder finder(*runtime, "test::Service");
  start_server();
  auto consumer = finder.connect();
  values.start(*consumer, "value");
  for (const std::size_t round : {1U, 2U}) {
    ASSERT_TRUE(values.states.wait_count(2 * round - 1) && values.received.wait_count(round));
    EXPECT_EQ(runtime->peers().services.at(0).ttlLeftMs, mw::com::runtime::never);
    stop_server();
    ASSERT_TRUE(values.states.wait_count(2 * round));
    if (round == 1) start_server();
  }
  // At once if the end of the connection has been seen, else after the time-out.
  EXPECT_THAT(call(*consumer, "lost"),
              testing::AnyOf(std::to_string(static_cast<int>(Return_code::not_reachable)),
                             std::to_string(static_cast<int>(Return_code::timeout))));
  start_server();
  EXPECT_TRUE(values.received.wait_count(3));
}

TEST_F(Local_socket, its_bounds_hold_and_what_stands_keeps_working) {
  deployment.limits.local_connections = 3;
  deployment.limits.tcp_send_queue_bytes = 200'000;
  start_server();
  Subscription values;
  const auto runtime = client();
  const test::Finder finder(*runtime, "test::Service");
  const auto consumer = finder.connect();
  values.start(*consumer, "value");
  ASSERT_TRUE(values.received.wait_count(1));

  const int babbler = connect();
  const int sluggard = connect();
  EXPECT_TRUE(eventually([&] { return counter(*server, "localAccepted") == 3; }));
  const int surplus = connect();
  EXPECT_TRUE(is_closed(surplus));
  EXPECT_EQ(counter(*server, "refusedConnections"), 1u);

  ASSERT_EQ(::send(babbler, "no frame of ours at all", 23, MSG_NOSIGNAL), 23);
  EXPECT_TRUE(is_closed(babbler));
  EXPECT_EQ(counter(*server, "droppedMalformed"), 1u);

  someip::Discovery_writer writer;
  someip::Entry entry{.type = someip::Entry_type::subscribe,
                      .service = 0x1111,
                      .instance = 1,
                      .major_version = 1,
                      .ttl = 3,
                      .flags = someip::Entry::initial_data_flag,
                      .event_group = 2};
  ASSERT_TRUE(writer.add(entry, {}));
  const auto frame = someip::local_frame_bytes({}, writer.message(1, true));
  const auto size = static_cast<ssize_t>(frame.size());
  ASSERT_EQ(::send(sluggard, frame.data(), frame.size(), MSG_NOSIGNAL), size);
  // It reads nothing of this; the other client gets it all.
  EXPECT_TRUE(eventually([&] {
    provider->notify(value, bytes(text_of_value));
    return counter(*server, "slowReaders") == 1;
  }));
  provider->notify(value, bytes("last"));
  EXPECT_TRUE(values.received.wait_for("last"));
  for (const int descriptor : {babbler, sluggard, surplus})
    ::close(descriptor);
}

TEST_F(Local_socket, a_client_that_came_when_no_descriptor_was_free_is_accepted_later) {
  start_server();
  // Once it has accepted one, its start holds no descriptor for a moment any longer.
  const int first = connect();
  EXPECT_TRUE(eventually([&] { return counter(*server, "localAccepted") == 1; }));
  rlimit usual{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &usual), 0);
  const int next = ::dup(0);
  ::close(next);
  // The client gets the last one.
  const rlimit few{.rlim_cur = static_cast<rlim_t>(next) + 1, .rlim_max = usual.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
  const int client = connect();
  const auto refused = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
  EXPECT_TRUE(eventually([&] { return std::chrono::steady_clock::now() > refused; }));
  EXPECT_EQ(counter(*server, "localAccepted"), 1U);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &usual), 0);
  EXPECT_TRUE(eventually([&] { return counter(*server, "localAccepted") == 2; }));
  ::close(first);
  ::close(client);
}

TEST_F(Local_socket, the_file_belongs_to_one_process_and_is_for_owner_and_group) {
  const auto listening = [&] { return std::make_unique<someip::Local_path>(path); };
  {
    const auto first = listening();
    const auto mask = ::umask(0077);
    const int descriptor = first->listen();
    ::umask(mask);
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0660u);
    EXPECT_THAT(error_of(listening), HasSubstr("another process listens there"));
    EXPECT_EQ(::close(connect()), 0) << "the first one still listens";
    ::close(descriptor);
  }
  EXPECT_FALSE(std::filesystem::exists(path));

  const auto leave_stale_socket = [&] {
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(descriptor);
  };
  leave_stale_socket();
  std::error_code error;
  EXPECT_EQ(someip::connect_local(path, error), -1);
  EXPECT_EQ(error, std::errc::connection_refused);
  start_server();
  EXPECT_EQ(::close(connect()), 0);
  stop_server();

  std::ofstream(path) << "notes";
  EXPECT_THAT(error_of(listening), HasSubstr("no socket"));
  start_server();  // without it: positions matter more
  EXPECT_TRUE(std::filesystem::is_regular_file(path));
  EXPECT_THAT(error_of([] { const someip::Local_path one(std::string(200, 'x')); }),
              HasSubstr("expected a path of 1 to 107 bytes"));
}

TEST(Own_socket_path, is_in_the_first_folder_that_the_environment_names) {
  const Temporary_folder folder;
  ::setenv("RUNTIME_DIRECTORY", "/run/first:/run/second", 1);
  EXPECT_EQ(tq::com::own_socket_path("POS"), "/run/first/POS.sock");
  ::unsetenv("RUNTIME_DIRECTORY");
  ::setenv("XDG_RUNTIME_DIR", folder.path().c_str(), 1);
  EXPECT_EQ(tq::com::own_socket_path("POS"), folder / "pos/POS.sock");
  EXPECT_EQ(std::filesystem::status(folder / "pos").permissions(), std::filesystem::perms{0700});
}

}  // namespace
