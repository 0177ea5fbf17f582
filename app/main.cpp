#include "app/posMain.h"

int main(int argc, char** argv) {
  return posMain(argc, argv);
}
