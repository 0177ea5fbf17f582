// A service manager that is not there, no longer, or does not read; what one receives on its notify
// socket is scenario_test.py's to see.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <string>

#include "ara/exec/application_client.h"
#include "ara/phm/phm_client.h"
#include "ara/phm/supervision_entity.h"
#include "tests/support/capture.h"
#include "tests/support/error_of.h"
#include "tests/support/own_process.h"
#include "tests/support/seen.h"
#include "tests/support/temporary_folder.h"

namespace ara {
namespace {

TEST(Service_manager, is_not_needed_but_reported_when_it_has_gone) {
  const test::Capture capture;
  const exec::ApplicationClient application;
  phm::Phm_client client(core::InstanceSpecifier("Instance"));
  phm::SupervisionEntity entity(client);
  const Temporary_folder folder;
  std::string longest = (folder / "").string();
  longest.resize(sizeof sockaddr_un::sun_path - 1, 's');
  ::setenv("NOTIFY_SOCKET", longest.c_str(), 1);
  application.ReportApplicationState(exec::ApplicationState::kRunning);
  ASSERT_EQ(capture.records().size(), 1U);
  EXPECT_EQ(capture.records()[0].level, log::LogLevel::kWarn);
  EXPECT_THAT(capture.records()[0].text(), ::testing::HasSubstr("No such file or directory"));
  EXPECT_EQ(
      test::error_of<std::runtime_error>([&] { entity.CheckpointReached(7, 8); }),
      "checkpoint 8 of entity 7 of \"Instance\" could not be reported to the service manager: "
      "No such file or directory");

  ::unsetenv("NOTIFY_SOCKET");
  application.ReportApplicationState(exec::ApplicationState::kRunning);
  EXPECT_NO_THROW(entity.CheckpointReached(1, 2));
  EXPECT_EQ(capture.records().size(), 1U);
}

/// A notify socket in the abstract namespace, whose queue is full.
class Full_socket {
 public:
  Full_socket() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name_.copy(address.sun_path + 1, name_.size());
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name_.size());
    EXPECT_EQ(::bind(receiver_, generic, length), 0);
    EXPECT_EQ(::connect(sender_, generic, length), 0);
    const timeval patience{.tv_sec = 30, .tv_usec = 0};
    ::setsockopt(receiver_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    while (::send(sender_, "full", 4, MSG_DONTWAIT) == 4) {
    }
    ::setenv("NOTIFY_SOCKET", ("@" + name_).c_str(), 1);
  }
  ~Full_socket() {
    ::unsetenv("NOTIFY_SOCKET");
    ::close(receiver_);
    ::close(sender_);
  }
  Full_socket(const Full_socket&) = delete;
  Full_socket& operator=(const Full_socket&) = delete;

  /// Reads until something else comes.
  [[nodiscard]] std::string first() const {
    for (std::array<char, 256> text{};;) {
      const auto size = ::recv(receiver_, text.data(), text.size(), 0);
      std::string message(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
      if (message != "full") return message;
    }
  }

 private:
  const std::string name_ = "pos-notify-" + std::to_string(::getpid());
  const int receiver_ = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  const int sender_ = ::socket(AF_UNIX, SOCK_DGRAM, 0);
};

TEST(Service_manager, that_does_not_read_delays_nothing_and_gets_the_newest_state_when_it_does) {
  using std::chrono::steady_clock;
  const test::Capture capture;
  phm::Phm_client client(core::InstanceSpecifier("Instance"));
  phm::SupervisionEntity entity(client);
  std::optional<Full_socket> manager(std::in_place);
  std::optional<exec::ApplicationClient> application(std::in_place);
  const auto inherited = test::inherited();
  const auto start = steady_clock::now();
  application->ReportApplicationState(exec::ApplicationState::kInitializing);
  application->ReportApplicationState(exec::ApplicationState::kRunning);
  EXPECT_THAT(test::error_of<std::runtime_error>([&] { entity.CheckpointReached(7, 8); }),
              ::testing::HasSubstr("Resource temporarily unavailable"));
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_TRUE(test::eventually(test::other_thread_waits)) << "for room";
  EXPECT_EQ(test::inherited(), inherited);
  EXPECT_EQ(manager->first(), "READY=1\nSTATUS=running");
  EXPECT_TRUE(capture.records().empty());

  manager.reset();
  manager.emplace();
  const auto end = steady_clock::now();
  application->ReportApplicationState(exec::ApplicationState::kTerminating);
  application.reset();
  EXPECT_LT(steady_clock::now() - end, std::chrono::seconds(2));
  ASSERT_EQ(capture.records().size(), 1U);
  EXPECT_THAT(capture.records()[0].text(),
              ::testing::HasSubstr("Resource temporarily unavailable"));
}

}  // namespace
}  // namespace ara
