/// main() of every GoogleTest program: a program of the application "pos".
#include <gmock/gmock.h>

#include "ara/core/initialization.h"

int main(int argc, char** argv) {
  ara::core::Initialize({.name = "pos", .node = "POS"});
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
