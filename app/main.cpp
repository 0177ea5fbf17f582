#include "app/identity.h"
#include "app/pos_main.h"
#include "ara/core/initialization.h"

int main(int argc, char** argv) {
  ara::core::Initialize(positioning_application());
  return pos_main(argc, argv);
}
