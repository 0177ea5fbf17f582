/// The whole application started and stopped again and again in one process: what a cycle leaves
/// behind adds up and shows. `lifetime_host CYCLES` prints a line when a cycle begins and one when
/// it has ended.
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "app/identity.h"
#include "app/pos_main.h"
#include "tests/support/seen.h"

namespace {

std::size_t count(const char* folder) {
  std::size_t entries = 0;
  for (const auto& entry : std::filesystem::directory_iterator{folder})
    entries += entry.exists() ? 1U : 0U;
  return entries;
}

}  // namespace

int main(int argc, char** argv) {
  ara::core::Initialize(positioning_application());
  const long cycles = argc == 2 ? std::strtol(argv[1], nullptr, 10) : 1;
  std::size_t first = 0;
  for (long cycle = 0; cycle < cycles; ++cycle) {
    std::cout << "start " << cycle << std::endl;
    const int code = pos_main(1, argv);
    std::size_t threads = count("/proc/self/task");
    if (cycle == 0) first = threads;
    // The kernel still lists a thread for a moment after it has been joined.
    static_cast<void>(
        test::eventually([&] { return (threads = count("/proc/self/task")) <= first; }));
    std::cout << "end " << cycle << " " << code << " " << count("/proc/self/fd") << " " << threads
              << std::endl;
  }
  return 0;
}
