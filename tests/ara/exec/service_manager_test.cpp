// What the service manager receives on its notify socket, from execution and health management
// alike.
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ara/exec/application_client.h"
#include "ara/phm/phm_client.h"
#include "ara/phm/supervision_entity.h"
#include "tests/support/Capture.h"
#include "tests/support/Temporary_folder.h"
#include "tests/support/error_of.h"

namespace ara {
namespace {

using exec::ApplicationClient;
using exec::ApplicationState;
using ::testing::HasSubstr;

class ServiceManager : public ::testing::Test {
 public:
  ServiceManager() {
    const std::string path = (folder_ / "socket").string();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the way of the socket interface
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
  }
  ~ServiceManager() override {
    ::unsetenv("NOTIFY_SOCKET");
    ::close(socket_);
  }

 protected:
  /// The next datagram, or "nothing".
  std::string Received() const {
    pollfd ready{socket_, POLLIN, 0};
    if (::poll(&ready, 1, 0) != 1) return "nothing";
    std::array<char, 512> buffer;
    return {buffer.data(),
            static_cast<std::size_t>(::recv(socket_, buffer.data(), buffer.size(), 0))};
  }

  Temporary_folder folder_;
  int socket_ = -1;
  phm::Phm_client client_{core::InstanceSpecifier("Instance")};
  phm::SupervisionEntity entity_{client_};
};

TEST_F(ServiceManager, is_told_the_application_states_and_has_its_watchdog_fed_by_checkpoints) {
  const ApplicationClient client;
  client.ReportApplicationState(ApplicationState::kInitializing);
  EXPECT_EQ(Received(), "STATUS=initializing");
  client.ReportApplicationState(ApplicationState::kRunning);
  EXPECT_EQ(Received(), "READY=1\nSTATUS=running");
  entity_.CheckpointReached(6000, 6000);
  entity_.CheckpointReached(1, 2);
  EXPECT_EQ(Received(), "WATCHDOG=1");
  EXPECT_EQ(Received(), "WATCHDOG=1");
  client.ReportApplicationState(ApplicationState::kTerminating);
  EXPECT_EQ(Received(), "STOPPING=1\nSTATUS=terminating");
  EXPECT_EQ(Received(), "nothing");
}

TEST_F(ServiceManager, is_not_needed_but_reported_when_it_has_gone) {
  const test::Capture capture;
  std::filesystem::remove(folder_ / "socket");
  ApplicationClient().ReportApplicationState(ApplicationState::kRunning);
  ASSERT_EQ(capture.Records().size(), 1U);
  EXPECT_EQ(capture.Records()[0].level, log::LogLevel::kWarn);
  EXPECT_THAT(capture.Records()[0].Text(), HasSubstr("No such file or directory"));
  EXPECT_EQ(
      test::error_of<std::runtime_error>([this] { entity_.CheckpointReached(7, 8); }),
      "checkpoint 8 of entity 7 of \"Instance\" could not be reported to the service manager: "
      "No such file or directory");

  ::unsetenv("NOTIFY_SOCKET");
  ApplicationClient().ReportApplicationState(ApplicationState::kRunning);
  EXPECT_NO_THROW(entity_.CheckpointReached(1, 2));
  EXPECT_EQ(capture.Records().size(), 1U);
}

}  // namespace
}  // namespace ara
