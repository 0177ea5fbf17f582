#include "tools/posctl/printer.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <system_error>

#include "tools/command.h"

namespace posctl {

namespace {

int make_event() {
  const int event = eventfd(0, EFD_CLOEXEC);
  if (event >= 0) return event;
  throw std::system_error(errno, std::generic_category(),
                          "cannot create an event for the end of the output");
}

}  // namespace

Printer::Printer(std::uint64_t count)
    : enough_(count), finished_(make_event()), cancelled_(make_event()) {}

Printer::~Printer() {
  close(finished_);
  close(cancelled_);
}

void Printer::print(const std::string& line) {
  const std::lock_guard lock(mutex_);
  if (failure_ || (enough_ != 0 && printed_ >= enough_)) return;
  try {
    tools::write_output(line + "\n", cancelled_);
    ++printed_;
  } catch (...) {
    failure_ = std::current_exception();
  }
  if (failure_ || printed_ == enough_) eventfd_write(finished_, 1);
}

void Printer::check() const {
  const std::lock_guard lock(mutex_);
  if (failure_) std::rethrow_exception(failure_);
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
  const auto wake = stop_signal.wait_until(end, finished_);
  eventfd_write(cancelled_, 1);
  return wake == tools::Stop_signal::Wake::due;
}

std::string text_after(double seconds) {
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), "after %g s: ", seconds);
  return text.data();
}

}  // namespace posctl
