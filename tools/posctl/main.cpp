/// posctl: the integrator's command line.
#include "app/identity.h"
#include "ara/core/initialization.h"
#include "tools/command_line.h"
#include "tools/posctl/command_table.h"

int main(int argc, char** argv) try {
  ara::core::Initialize(positioning_application());
  return posctl::Command_line().run(argc, argv);
} catch (...) {
  return tools::report_exception("posctl");
}
