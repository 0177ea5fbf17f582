// A service manager that is not there, or not any more; what one receives on its notify socket is
// scenario_test.py's to see.
#include <gmock/gmock.h>

#include <cstdlib>

#include "ara/exec/application_client.h"
#include "ara/phm/phm_client.h"
#include "ara/phm/supervision_entity.h"
#include "tests/support/Capture.h"
#include "tests/support/Temporary_folder.h"
#include "tests/support/error_of.h"

namespace ara {
namespace {

TEST(ServiceManager, is_not_needed_but_reported_when_it_has_gone) {
  const test::Capture capture;
  const exec::ApplicationClient application;
  phm::Phm_client client(core::InstanceSpecifier("Instance"));
  phm::SupervisionEntity entity(client);
  const Temporary_folder folder;
  ::setenv("NOTIFY_SOCKET", (folder / "socket").c_str(), 1);
  application.ReportApplicationState(exec::ApplicationState::kRunning);
  ASSERT_EQ(capture.Records().size(), 1U);
  EXPECT_EQ(capture.Records()[0].level, log::LogLevel::kWarn);
  EXPECT_THAT(capture.Records()[0].Text(), ::testing::HasSubstr("No such file or directory"));
  EXPECT_EQ(
      test::error_of<std::runtime_error>([&] { entity.CheckpointReached(7, 8); }),
      "checkpoint 8 of entity 7 of \"Instance\" could not be reported to the service manager: "
      "No such file or directory");

  ::unsetenv("NOTIFY_SOCKET");
  application.ReportApplicationState(exec::ApplicationState::kRunning);
  EXPECT_NO_THROW(entity.CheckpointReached(1, 2));
  EXPECT_EQ(capture.Records().size(), 1U);
}

}  // namespace
}  // namespace ara
