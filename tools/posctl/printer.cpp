#include "tools/posctl/printer.h"

#include <poll.h>
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

Printer::Write line_writer(const std::string& line) {
  return [&line](int cancel) { tools::write_output(line + "\n", cancel); };
}

}  // namespace

Printer::Printer(std::uint64_t count)
    : enough_(count), finished_(make_event()), cancelled_(make_event()) {}

Printer::~Printer() {
  close(finished_);
  close(cancelled_);
}

void Printer::print(const std::string& line) {
  print(line_writer(line));
}

void Printer::remark(const std::string& line) {
  remark(line_writer(line));
}

void Printer::print(const Write& write) {
  const std::lock_guard lock(mutex_);
  this->write(write, true);
}

void Printer::remark(const Write& write) {
  const std::lock_guard lock(mutex_);
  this->write(write, false);
}

void Printer::remark_at_once(const std::string& line) {
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  if (::poll(&output, 1, 0) == 1) remark_at_once(line_writer(line));
}

void Printer::remark_at_once(const Write& write) {
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (lock) this->write(write, false);
}

void Printer::write(const Write& write, bool counts) {
  if (failure_ || (enough_ != 0 && printed_ >= enough_)) return;
  try {
    write(cancelled_);
    if (counts) ++printed_;
  } catch (...) {
    failure_ = std::current_exception();
  }
  if (failure_ || (enough_ != 0 && printed_ == enough_)) eventfd_write(finished_, 1);
}

void Printer::check() const {
  const std::lock_guard lock(mutex_);
  if (failure_) std::rethrow_exception(failure_);
}

std::uint64_t Printer::printed() const {
  const std::lock_guard lock(mutex_);
  return printed_;
}

bool Printer::wait(tools::Stop_signal& stop_signal,
                   double seconds,
                   const std::function<void()>& tick) const {
  using std::chrono::steady_clock;
  auto end = steady_clock::time_point::max();
  if (seconds > 0) {
    end = steady_clock::now() + std::chrono::duration_cast<steady_clock::duration>(
                                    std::chrono::duration<double>(seconds));
  }
  constexpr std::chrono::milliseconds between_ticks{100};
  auto wake = tools::Stop_signal::Wake::due;
  for (bool over = false; !over;) {
    const auto now = steady_clock::now();
    const auto due = tick && end - now > between_ticks ? now + between_ticks : end;
    wake = stop_signal.wait_until(due, finished_);
    over = wake != tools::Stop_signal::Wake::due || due == end;
    if (!over) tick();
  }
  eventfd_write(cancelled_, 1);
  return wake == tools::Stop_signal::Wake::due;
}

std::string text_after(double seconds) {
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), "after %g s: ", seconds);
  return text.data();
}

}  // namespace posctl
