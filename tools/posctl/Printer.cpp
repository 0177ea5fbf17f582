#include "tools/posctl/Printer.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <iostream>
#include <system_error>

namespace posctl {

Printer::Printer(std::uint64_t count) : enough_(count), finished_(eventfd(0, EFD_CLOEXEC)) {
  if (finished_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

Printer::~Printer() {
  close(finished_);
}

void Printer::print(const std::string& line) {
  const std::lock_guard lock(mutex_);
  if (enough_ != 0 && printed_ >= enough_) return;
  ++printed_;
  std::cout << line << std::endl;
  if (printed_ == enough_ || !std::cout) eventfd_write(finished_, 1);
}

std::uint64_t Printer::printed() const {
  const std::lock_guard lock(mutex_);
  return printed_;
}

bool Printer::wait(tools::Stop_signal& stop_signal, double seconds) const {
  using std::chrono::steady_clock;
  auto end = steady_clock::time_point::max();
  if (seconds > 0) {
    end = steady_clock::now() + std::chrono::duration_cast<steady_clock::duration>(
                                    std::chrono::duration<double>(seconds));
  }
  return stop_signal.wait_until(end, finished_) == tools::Stop_signal::Wake::due;
}

}  // namespace posctl
