#include "platform/linux/log/dlt_sink.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "ara/log/levels.h"
#include "platform/linux/core/all_signals_blocked.h"

namespace ara::log {
namespace {

constexpr std::int64_t search_interval = 500'000'000;
/// The library's housekeeping thread opens the new daemon's pipe within this time: it looks once a
/// second.
constexpr std::int64_t reattach_time = 2'000'000'000;
/// At the end of the process, the library waits this long for a daemon that does not read.
constexpr std::uint32_t drain_milliseconds = 1000;

/// DLT's limits for one message: the bytes of all arguments with their type headers, and the byte
/// that counts the arguments.
constexpr std::size_t max_payload = 1390;
constexpr std::size_t max_arguments = 255;
/// A part holds its two marks and at least a few characters of a text.
constexpr std::size_t min_part = 64;

/// The longest message that the library accepts, computed as the library computes it.
std::size_t configured_payload() {
  const char* const length = std::getenv("DLT_LOG_MSG_BUF_LEN");
  if (length == nullptr) return max_payload;
  return std::min<std::size_t>(static_cast<std::uint32_t>(std::strtol(length, nullptr, 10)),
                               max_payload);
}

constexpr bool is(Argument_type type, std::uint32_t information) {
  return static_cast<std::uint32_t>(type) == information;
}
static_assert(is(Argument_type::boolean, DLT_TYPE_INFO_BOOL | DLT_TYLE_8BIT) &&
              is(of_size(Argument_type::signed_integer, 1), DLT_TYPE_INFO_SINT | DLT_TYLE_8BIT) &&
              is(of_size(Argument_type::signed_integer, 2), DLT_TYPE_INFO_SINT | DLT_TYLE_16BIT) &&
              is(of_size(Argument_type::unsigned_integer, 4),
                 DLT_TYPE_INFO_UINT | DLT_TYLE_32BIT) &&
              is(of_size(Argument_type::unsigned_integer, 8),
                 DLT_TYPE_INFO_UINT | DLT_TYLE_64BIT) &&
              is(Argument_type::float32, DLT_TYPE_INFO_FLOA | DLT_TYLE_32BIT) &&
              is(Argument_type::float64, DLT_TYPE_INFO_FLOA | DLT_TYLE_64BIT) &&
              is(Argument_type::text, DLT_TYPE_INFO_STRG | DLT_SCOD_UTF8));

std::int64_t coarse_now() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/// Runs on a thread of the library.
void level_changed(char* context_id, std::uint8_t level, std::uint8_t /*trace_status*/) {
  if (level > static_cast<std::uint8_t>(LogLevel::kVerbose)) return;
  std::string_view id(context_id, 4);
  id = id.substr(0, id.find('\0'));
  SetLevelOf(id, static_cast<LogLevel>(level));
}

/// The longest front of `text` with at most `size` bytes (never the whole text) that ends between
/// two UTF-8 characters; exactly `size` bytes if the text is not UTF-8.
std::string_view front_of(std::string_view text, std::size_t size) {
  for (std::size_t end = size; end > 0 && size - end < 4; --end) {
    if ((static_cast<unsigned char>(text[end]) & 0xC0U) != 0x80U) return text.substr(0, end);
  }
  return text.substr(0, size);
}

/// Gives the library one message. Returns false if the library refuses it. The library itself
/// reports the messages that it drops from a full buffer (a slow daemon).
bool give(DltContext& context, LogLevel level, Arguments arguments) {
  DltContextData message{};
  const auto dlt_level = static_cast<DltLogLevelType>(level);
  if (arguments.empty()) {  // the library refuses an empty buffer
    const bool taken = dlt_user_log_write_start(&context, &message, dlt_level) == DLT_RETURN_TRUE;
    if (taken) dlt_user_log_write_finish(&message);
    return taken;
  }
  // The library only reads the buffer, in spite of its parameter's type.
  auto* const payload = const_cast<char*>(arguments.encoded().data());
  const bool taken = dlt_user_log_write_start_w_given_buffer(
                         &context, &message, dlt_level, payload, arguments.encoded().size(),
                         static_cast<std::int32_t>(arguments.count())) == DLT_RETURN_TRUE;
  if (taken) dlt_user_log_write_finish_w_given_buffer(&message);
  return taken;
}

/// Distributes arguments over as many DLT messages as they need.
class Parts {
 public:
  /// `size` of a part: min_part to max_payload.
  Parts(DltContext& context, LogLevel level, std::size_t size)
      : context_(context), level_(level), size_(size) {}

  /// `last`: no argument follows, so the part needs no room for the mark of a following part.
  void add(Argument argument, bool last) {
    while (!fits(argument.encoded_size(), last)) {
      // A text is cut if no part could hold it whole or if much of this part would stay empty.
      const std::size_t room = size_ - continues_size - used_;
      const bool needs_cut = continued_size + argument.encoded_size() + continues_size > size_;
      if (argument.type == Argument_type::text && (needs_cut || room > size_ / 2) &&
          room > text_overhead + 4 && count_ + 2 <= max_arguments) {
        const std::string_view front = front_of(argument.value, room - text_overhead);
        put_text(front);
        argument.value.remove_prefix(front.size());
      }
      put_text(continues);
      end();
      put_text(continued);
    }
    put(argument);
  }
  /// Sends the last part. Returns false if the library accepted no part. After a refused part it
  /// receives no other: the part before ends in a mark, so that the gap shows.
  bool end() {
    refused_ = refused_ || !give(context_, level_, Arguments({payload_.data(), used_}, count_));
    taken_ = taken_ || !refused_;
    used_ = 0;
    count_ = 0;
    return taken_;
  }

 private:
  static constexpr std::string_view continues = "[continues]";
  static constexpr std::string_view continued = "[continued]";
  static constexpr std::size_t continues_size = text_overhead + continues.size();
  static constexpr std::size_t continued_size = text_overhead + continued.size();

  [[nodiscard]] bool fits(std::size_t size, bool last) const {
    return used_ + size + (last ? 0 : continues_size) <= size_ &&
           count_ + (last ? 1 : 2) <= max_arguments;
  }
  void put(const Argument& argument) {
    if (argument.type == Argument_type::text) {
      put_text(argument.value);
    } else {
      const bool is_integer = argument.type == Argument_type::signed_integer ||
                              argument.type == Argument_type::unsigned_integer;
      const auto size = argument.value.size();
      encode_number(payload_.data() + used_,
                    is_integer ? of_size(argument.type, size) : argument.type,
                    argument.value.data(), size);
      count(argument.encoded_size());
    }
  }
  void put_text(std::string_view text) {
    encode_text(payload_.data() + used_, text);
    count(text_overhead + text.size());
  }
  void count(std::size_t size) {
    used_ += size;
    ++count_;
  }

  DltContext& context_;
  const LogLevel level_;
  const std::size_t size_;
  std::array<char, max_payload> payload_;
  std::size_t used_ = 0;
  std::size_t count_ = 0;
  bool taken_ = false;
  bool refused_ = false;
};

}  // namespace

void Dlt_sink::configure(std::string_view application, std::string_view description) {
  application_ = application;
  description_ = description;
}

Dlt_sink::Readiness Dlt_sink::ready(Context* contexts) {
  const State before = state_.load(std::memory_order_acquire);
  if (before == State::closed) return {false, Change::none};
  if (before == State::connected) {
    // A thread that finds the daemon dead sets state_ before it takes the pipe out of watch_.
    if (reader_lives() && state_.load(std::memory_order_acquire) == State::connected)
      return {true, Change::none};
  }
  const std::int64_t now = coarse_now();
  if (before != State::connected && now < next_look_.load(std::memory_order_relaxed)) {
    return {false, Change::none};
  }
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (!lock) return {false, Change::none};
  const State state = state_.load(std::memory_order_acquire);
  if (state == State::closed) return {false, Change::none};
  const auto change_to = [&](State next, std::int64_t pause, Change change) -> Readiness {
    next_look_.store(now + pause, std::memory_order_relaxed);
    state_.store(next, std::memory_order_release);
    return {next == State::connected, change};
  };
  if (state == State::connected || state == State::returning) {
    if (reader_lives()) return change_to(State::connected, 0, Change::none);
    const auto lost =
        change_to(State::lost, 0, state == State::connected ? Change::lost : Change::none);
    close_pipe();
    return lost;
  }
  if (!open_pipe()) return change_to(state, search_interval, Change::none);
  if (library_started_) return change_to(State::returning, reattach_time, Change::returned);
  start_library();
  for (auto* context = contexts; context != nullptr; context = context->next)
    register_locked(*context);
  return change_to(State::connected, 0, Change::none);
}

bool Dlt_sink::reader_lives() const {
  epoll_event event;
  return ::epoll_wait(watch_, &event, 1, 0) == 0;
}

bool Dlt_sink::open_pipe() {
  const char* folder = std::getenv("DLT_PIPE_DIR");
  const std::string path = std::string(folder != nullptr ? folder : "/tmp") + "/dlt";
  pipe_ = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  // In a folder that all users may write to, another file may have taken the name.
  struct stat status {};
  if (pipe_ < 0) return false;
  if (watch_ < 0) watch_ = ::epoll_create1(EPOLL_CLOEXEC);
  epoll_event death{};  // epoll always reports EPOLLERR
  if (::fstat(pipe_, &status) == 0 && S_ISFIFO(status.st_mode) &&
      ::epoll_ctl(watch_, EPOLL_CTL_ADD, pipe_, &death) == 0) {
    return true;
  }
  ::close(std::exchange(pipe_, -1));
  return false;
}

void Dlt_sink::close_pipe() {
  // Removed explicitly, because a copy of the pipe in a child before its exec would keep it
  // watched.
  ::epoll_ctl(watch_, EPOLL_CTL_DEL, pipe_, nullptr);
  ::close(std::exchange(pipe_, -1));
}

void Dlt_sink::start_library() {
  const core::All_signals_blocked blocked;  // for the threads that the library starts
  max_payload_ = configured_payload();
  // The library would write its own remarks to standard output or standard error, and wait there
  // for a reader.
  dlt_log_init(DLT_LOG_DROPPED);
  dlt_register_app(application_.c_str(), description_.c_str());
  library_started_ = true;
  // Runs before the library's own exit handler, which was installed earlier.
  std::atexit(exit_handler_);
}

void Dlt_sink::register_context(Context& context) {
  const std::lock_guard lock(mutex_);
  if (library_started_ && state_.load(std::memory_order_relaxed) != State::closed)
    register_locked(context);
}

void Dlt_sink::register_locked(Context& context) {
  if (context.dlt_ready.load(std::memory_order_relaxed)) return;
  const auto level = context.logger.Level();
  if (dlt_register_context_ll_ts(&context.dlt, context.id.c_str(), context.description.c_str(),
                                 static_cast<int>(level), DLT_TRACE_STATUS_OFF) < DLT_RETURN_OK) {
    return;
  }
  dlt_register_log_level_changed_callback(&context.dlt, &level_changed);
  // The library's own environment settings may have changed the level at registration.
  if (context.dlt.log_level_ptr != nullptr) {
    level_changed(context.dlt.contextID, static_cast<std::uint8_t>(*context.dlt.log_level_ptr), 0);
  }
  // From here on the Logger alone decides which level is enabled. That leaves one place to ask, and
  // no race on the library's level.
  static std::int8_t everything = DLT_LOG_VERBOSE;
  context.dlt.log_level_ptr = &everything;
  context.dlt_ready.store(true, std::memory_order_release);
}

bool Dlt_sink::send(Context& context, LogLevel level, Arguments arguments) {
  if (!context.dlt_ready.load(std::memory_order_acquire)) return false;
  if (arguments.encoded().size() <= max_payload_ && arguments.count() <= max_arguments)
    return give(context.dlt, level, arguments);
  if (max_payload_ < min_part) return false;
  Parts parts(context.dlt, level, max_payload_);
  while (!arguments.empty()) {
    const Argument argument = arguments.next();
    parts.add(argument, arguments.empty());
  }
  return parts.end();
}

void Dlt_sink::close() {
  const std::lock_guard lock(mutex_);
  // Without a reader the library cannot deliver the messages it still holds.
  const bool connected =
      state_.load(std::memory_order_relaxed) == State::connected && reader_lives();
  dlt_set_resend_timeout_atexit(connected ? drain_milliseconds : 0);
  state_.store(State::closed, std::memory_order_release);
}

}  // namespace ara::log
