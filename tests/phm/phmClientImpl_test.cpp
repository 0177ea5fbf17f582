#include "phm/phmClientImpl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

/// Plays the service manager's end of the watchdog.
class Watchdog {
 public:
  Watchdog() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    char pattern[] = "/tmp/phm_test_XXXXXX";
    folder_ = mkdtemp(pattern);
    const std::string path = folder_ + "/notify";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());  // NOLINT: a short path
    if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot bind " + path);
    }
    const timeval limit{10, 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    setenv("WATCHDOG_USEC", "5000000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  }
  ~Watchdog() {
    ::close(socket_);
    unlink((folder_ + "/notify").c_str());
    rmdir(folder_.c_str());
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  /// The next message; empty when none comes.
  [[nodiscard]] std::string next() const {
    std::array<char, 256> buffer{};
    const auto size = ::recv(socket_, buffer.data(), buffer.size(), 0);
    return size > 0 ? std::string(buffer.data(), static_cast<std::size_t>(size)) : "";
  }

 private:
  int socket_;
  std::string folder_;
};

TEST(phmClientImpl, reports_a_checkpoint_at_once_and_every_second_until_stopped) {
  const Watchdog watchdog;
  phmClient::phmClientImpl client;
  client.stop();

  const auto start = std::chrono::steady_clock::now();
  client.init();
  EXPECT_THAT(watchdog.next(), testing::HasSubstr("WATCHDOG=1"));
  EXPECT_THAT(watchdog.next(), testing::HasSubstr("WATCHDOG=1"));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  client.init();
  EXPECT_THAT(watchdog.next(), testing::HasSubstr("WATCHDOG=1"));
  client.stop();
}

}  // namespace
