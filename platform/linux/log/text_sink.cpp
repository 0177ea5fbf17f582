#include "platform/linux/log/text_sink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/linux/core/all_signals_blocked.h"

namespace ara::log {
namespace {

/// Holds the lines of a busy process for some seconds.
constexpr std::size_t max_queued_bytes = std::size_t{256} << 10;
/// At exit, the longest waits for the reader to take the next line, and to take all lines.
constexpr std::chrono::milliseconds longest_wait_for_a_line{100};
constexpr std::chrono::seconds longest_exit{1};

}  // namespace

std::string format_line(LogLevel level,
                        std::string_view application,
                        std::string_view context,
                        std::string_view text) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  ::localtime_r(&now.tv_sec, &parts);
  std::array<char, 32> seconds;
  std::array<char, 8> fraction;
  std::string line;
  line.reserve(64 + text.size());
  line.append(seconds.data(),
              std::strftime(seconds.data(), seconds.size(), "%Y/%m/%d %H:%M:%S", &parts));
  std::snprintf(fraction.data(), fraction.size(), ".%06u",
                static_cast<unsigned>(now.tv_nsec / 1000) % 1000000U);
  line += fraction.data();
  for (const std::string_view word : {NameOf(level), application, context, text}) {
    line += ' ';
    line += word;
  }
  for (char& c : line) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
  }
  line += '\n';
  return line;
}

Standard_error::Standard_error() : descriptor_(STDERR_FILENO) {
  struct stat status {};
  if (::fstat(STDERR_FILENO, &status) != 0) return;  // closed: each write fails at once
  socket_ = S_ISSOCK(status.st_mode);
  if (socket_ || S_ISREG(status.st_mode)) return;
  // An open file description of our own: only this one does not wait.
  const int own = ::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (own >= 0) descriptor_ = own;
  may_wait_ = own < 0;
}

int Standard_error::write(std::string_view& line) const noexcept {
  while (!line.empty()) {
    const ssize_t written =
        socket_ ? ::send(descriptor_, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL)
                : ::write(descriptor_, line.data(), line.size());
    if (written >= 0) {
      line.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

void Standard_error::wait_for_reader() const noexcept {
  pollfd ready{descriptor_, POLLOUT, 0};
  (void)::poll(&ready, 1, -1);
}

void Text_sink::configure(std::string_view application) {
  const std::lock_guard lock(mutex_);
  application_ = application;
}

void Text_sink::write(std::string line) noexcept {
  try {
    std::unique_lock lock(mutex_);
    if (queuing_ && (dropped_ > 0 || queued_bytes_ + line.size() > max_queued_bytes)) {
      ++dropped_;
      start_thread();
    } else {
      const auto missing = std::exchange(dropped_, 0);
      if (missing > 0) add(notice_of(missing));
      if (dropped_ > 0) {  // the notice did not get through either
        dropped_ = missing + 1;
      } else {
        add(std::move(line));
      }
    }
    if (closed_) wait_for_queue(lock);
  } catch (
      ...) {  // NOLINT(bugprone-empty-catch): no memory for a log line; the application goes on
  }
}

void Text_sink::add(std::string line) {
  if (!queuing_ && !output_.may_wait()) {
    std::string_view rest = line;
    const int error = output_.write(rest);
    if (error == 0) return;
    if (error != EAGAIN) {
      ++dropped_;
      return;
    }
    line.erase(0, line.size() - rest.size());
  }
  queued_bytes_ += line.size();
  queue_.push_back(std::move(line));
  queuing_ = true;
  start_thread();
  enqueued_.notify_one();
}

void Text_sink::start_thread() {
  if (thread_runs_) return;
  try {
    const core::All_signals_blocked blocked;
    std::thread([this] { write_queue(); }).detach();
    thread_runs_ = true;
    (void)std::atexit(exit_handler_);
  } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): the next line tries again
  }
}

void Text_sink::write_queue() noexcept {
  std::uint64_t lines = 1;  // the number of missing lines if the next line cannot be written
  std::unique_lock lock(mutex_);
  for (;;) {
    enqueued_.wait(lock, [this] { return !queue_.empty(); });
    const std::string line = std::move(queue_.front());
    queue_.pop_front();
    queued_bytes_ -= line.size();
    lock.unlock();
    std::string_view rest = line;
    int error = 0;
    while ((error = output_.write(rest)) == EAGAIN)
      output_.wait_for_reader();
    lock.lock();
    if (error == 0) {
      ++written_;
    } else {
      dropped_ += lines;
    }
    lines = 1;
    if (!queue_.empty()) continue;
    if (error == 0 && dropped_ > 0 && enqueue_notice()) {
      lines = std::exchange(dropped_, 0);
      continue;
    }
    queuing_ = false;
    drained_.notify_all();
  }
}

bool Text_sink::enqueue_notice() noexcept {
  try {
    queue_.push_back(notice_of(dropped_));
    queued_bytes_ += queue_.back().size();
    return true;
  } catch (const std::exception&) {  // no memory: write it before the next line
    return false;
  }
}

std::string Text_sink::notice_of(std::uint64_t lines) const {
  return format_line(
      LogLevel::kWarn, application_, application_,
      "Standard error was not read, log lines missing here: " + std::to_string(lines));
}

void Text_sink::close() {
  std::unique_lock lock(mutex_);
  closed_ = true;
  wait_for_queue(lock);
}

void Text_sink::wait_for_queue(std::unique_lock<std::mutex>& lock) {
  const auto end = std::chrono::steady_clock::now() + longest_exit;
  while (queuing_ && !given_up_) {
    const auto before = written_;
    (void)drained_.wait_for(lock, longest_wait_for_a_line, [this] { return !queuing_; });
    given_up_ = written_ == before || std::chrono::steady_clock::now() > end;
  }
}

}  // namespace ara::log
