#include "platform/linux/log/dlt_sink.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "platform/linux/log/backend.h"

namespace ara::log {
namespace {

constexpr std::int64_t kSearchInterval = 500'000'000;
/// The library opens the new daemon's pipe from its housekeeping thread, once a second.
constexpr std::int64_t kReattachTime = 2'000'000'000;
/// What the library waits for a daemon that is there but does not read, when the process ends.
constexpr std::uint32_t kDrainMilliseconds = 1000;

/// DLT's limits for one message: bytes of all arguments with their type headers, and the byte that
/// counts the arguments.
constexpr std::size_t kMaxPayload = 1390;
constexpr std::size_t kMaxArguments = 255;
constexpr std::size_t kNumberHeader = 4;        // type
constexpr std::size_t kTextHeader = 4 + 2 + 1;  // type, length, closing zero

std::int64_t CoarseNow() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/// The library starts threads; no signal may ever be handled on them.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};

/// On a thread of the library.
void LevelChanged(char* context_id, std::uint8_t level, std::uint8_t /*trace_status*/) {
  if (level > static_cast<std::uint8_t>(LogLevel::kVerbose)) return;
  std::string_view id(context_id, 4);
  id = id.substr(0, id.find('\0'));
  for (auto* context = Backend::Instance().contexts(); context != nullptr;
       context = context->next) {
    if (context->id == id) context->logger.SetLevel(static_cast<LogLevel>(level));
  }
}

std::size_t PayloadSize(const Argument& argument) {
  return argument.type == ArgumentType::kText ? kTextHeader + argument.bytes.size()
                                              : kNumberHeader + argument.bytes.size();
}

/// The longest front of `text` of at most `size` bytes (and less than all) that ends between two
/// UTF-8 characters; for a text that is not UTF-8 just `size` bytes.
std::string_view FrontOf(std::string_view text, std::size_t size) {
  for (std::size_t end = size; end > 0 && size - end < 4; --end) {
    if ((static_cast<unsigned char>(text[end]) & 0xC0U) != 0x80U) return text.substr(0, end);
  }
  return text.substr(0, size);
}

void Write(DltContextData& message, const Argument& argument) {
  switch (argument.type) {
    case ArgumentType::kBool:
      dlt_user_log_write_bool(&message, argument.As<std::uint8_t>());
      break;
    case ArgumentType::kSigned:
      switch (argument.bytes.size()) {
        case 1:
          dlt_user_log_write_int8(&message, argument.As<std::int8_t>());
          break;
        case 2:
          dlt_user_log_write_int16(&message, argument.As<std::int16_t>());
          break;
        case 4:
          dlt_user_log_write_int32(&message, argument.As<std::int32_t>());
          break;
        default:
          dlt_user_log_write_int64(&message, argument.As<std::int64_t>());
          break;
      }
      break;
    case ArgumentType::kUnsigned:
      switch (argument.bytes.size()) {
        case 1:
          dlt_user_log_write_uint8(&message, argument.As<std::uint8_t>());
          break;
        case 2:
          dlt_user_log_write_uint16(&message, argument.As<std::uint16_t>());
          break;
        case 4:
          dlt_user_log_write_uint32(&message, argument.As<std::uint32_t>());
          break;
        default:
          dlt_user_log_write_uint64(&message, argument.As<std::uint64_t>());
          break;
      }
      break;
    case ArgumentType::kFloat:
      dlt_user_log_write_float32(&message, argument.As<float>());
      break;
    case ArgumentType::kDouble:
      dlt_user_log_write_float64(&message, argument.As<double>());
      break;
    case ArgumentType::kText:
      dlt_user_log_write_sized_utf8_string(&message, argument.bytes.data(),
                                           static_cast<std::uint16_t>(argument.bytes.size()));
      break;
  }
}

/// Writes arguments into one DLT message after the other, as many as they need.
class Parts {
 public:
  Parts(DltContext& context, LogLevel level)
      : context_(context), level_(static_cast<DltLogLevelType>(level)) {
    Begin();
  }
  ~Parts() {
    if (open_) dlt_user_log_write_finish(&message_);
  }
  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;

  /// `last`: no argument follows, so no room is needed for the mark of a following part.
  void Add(Argument argument, bool last) {
    while (!Fits(PayloadSize(argument), last)) {
      // A text is cut when no part could hold it whole or when much of this part would stay empty.
      const std::size_t room = kMaxPayload - kContinuesSize - used_;
      const bool needs_cut = kContinuedSize + PayloadSize(argument) + kContinuesSize > kMaxPayload;
      if (argument.type == ArgumentType::kText && (needs_cut || room > kMaxPayload / 2) &&
          room > kTextHeader + 4 && count_ + 2 <= kMaxArguments) {
        const std::string_view front = FrontOf(argument.bytes, room - kTextHeader);
        Put(Argument{ArgumentType::kText, front});
        argument.bytes.remove_prefix(front.size());
      }
      Put(kContinues);
      dlt_user_log_write_finish(&message_);
      Begin();
      if (!open_) return;
      Put(kContinued);
    }
    Put(argument);
  }

 private:
  static constexpr Argument kContinues{ArgumentType::kText, "[continues]"};
  static constexpr Argument kContinued{ArgumentType::kText, "[continued]"};
  static constexpr std::size_t kContinuesSize = kTextHeader + kContinues.bytes.size();
  static constexpr std::size_t kContinuedSize = kTextHeader + kContinued.bytes.size();

  void Begin() {
    open_ = dlt_user_log_write_start(&context_, &message_, level_) == DLT_RETURN_TRUE;
    used_ = 0;
    count_ = 0;
  }
  [[nodiscard]] bool Fits(std::size_t size, bool last) const {
    return !open_ || (used_ + size + (last ? 0 : kContinuesSize) <= kMaxPayload &&
                      count_ + (last ? 1 : 2) <= kMaxArguments);
  }
  void Put(const Argument& argument) {
    if (!open_) return;
    Write(message_, argument);
    used_ += PayloadSize(argument);
    ++count_;
  }

  DltContext& context_;
  DltLogLevelType level_;
  DltContextData message_{};
  bool open_ = false;
  std::size_t used_ = 0;
  std::size_t count_ = 0;
};

}  // namespace

void DltSink::Configure(std::string_view application, std::string_view description) {
  application_ = application;
  description_ = description;
}

DltSink::Readiness DltSink::Ready(Context* contexts) {
  const State before = state_.load(std::memory_order_acquire);
  if (before == State::kClosed) return {false, Change::kNone};
  const std::int64_t now = CoarseNow();
  if (before != State::kConnected && now < next_look_.load(std::memory_order_relaxed)) {
    return {false, Change::kNone};
  }
  const std::unique_lock lock(mutex_, std::try_to_lock);
  const State state = state_.load(std::memory_order_acquire);
  if (!lock || state == State::kClosed) return {state == State::kConnected, Change::kNone};
  const auto change_to = [&](State next, std::int64_t pause, Change change) -> Readiness {
    next_look_.store(now + pause, std::memory_order_relaxed);
    state_.store(next, std::memory_order_release);
    return {next == State::kConnected, change};
  };
  if (state == State::kConnected || state == State::kReturning) {
    pollfd reader{pipe_, 0, 0};
    if (::poll(&reader, 1, 0) == 0) {
      if (state == State::kReturning) return change_to(State::kConnected, 0, Change::kNone);
      return {true, Change::kNone};
    }
    ::close(std::exchange(pipe_, -1));
    return change_to(State::kLost, 0, state == State::kConnected ? Change::kLost : Change::kNone);
  }
  if (!OpenPipe()) return change_to(state, kSearchInterval, Change::kNone);
  if (library_started_) return change_to(State::kReturning, kReattachTime, Change::kReturned);
  StartLibrary();
  for (auto* context = contexts; context != nullptr; context = context->next)
    RegisterLocked(*context);
  return change_to(State::kConnected, 0, Change::kNone);
}

bool DltSink::OpenPipe() {
  const char* folder = std::getenv("DLT_PIPE_DIR");
  const std::string path = std::string(folder != nullptr ? folder : "/tmp") + "/dlt";
  pipe_ = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  // In a folder that everybody may write to, something else may have taken the name.
  struct stat status {};
  if (pipe_ >= 0 && (::fstat(pipe_, &status) != 0 || !S_ISFIFO(status.st_mode)))
    ::close(std::exchange(pipe_, -1));
  return pipe_ >= 0;
}

void DltSink::StartLibrary() {
  const AllSignalsBlocked blocked;
  dlt_register_app(application_.c_str(), description_.c_str());
  library_started_ = true;
  // Its own remarks would go to standard output, which belongs to the application.
  dlt_log_init(DLT_LOG_TO_STDERR);
  dlt_log_set_level(LOG_WARNING);
  // Runs before the library's own exit handler, which was installed before this one.
  std::atexit([] { Backend::Instance().Close(); });
}

void DltSink::Register(Context& context) {
  const std::lock_guard lock(mutex_);
  if (library_started_ && state_.load(std::memory_order_relaxed) != State::kClosed)
    RegisterLocked(context);
}

void DltSink::RegisterLocked(Context& context) {
  if (context.dlt_ready.load(std::memory_order_relaxed)) return;
  const auto level = context.logger.Level();
  if (dlt_register_context_ll_ts(&context.dlt, context.id.c_str(), context.description.c_str(),
                                 static_cast<int>(level), DLT_TRACE_STATUS_OFF) < DLT_RETURN_OK) {
    return;
  }
  dlt_register_log_level_changed_callback(&context.dlt, &LevelChanged);
  // The library's own environment settings may have changed the level at registration.
  if (context.dlt.log_level_ptr != nullptr) {
    LevelChanged(context.dlt.contextID, static_cast<std::uint8_t>(*context.dlt.log_level_ptr), 0);
  }
  // From here on the Logger alone decides what is enabled: one place to ask, and no race on the
  // library's.
  static std::int8_t everything = DLT_LOG_VERBOSE;
  context.dlt.log_level_ptr = &everything;
  context.dlt_ready.store(true, std::memory_order_release);
}

bool DltSink::Send(Context& context, LogLevel level, Arguments arguments) {
  if (!context.dlt_ready.load(std::memory_order_acquire)) return false;
  Parts parts(context.dlt, level);
  while (!arguments.empty()) {
    const Argument argument = arguments.Next();
    parts.Add(argument, arguments.empty());
  }
  return true;
}

void DltSink::Close() {
  const std::lock_guard lock(mutex_);
  // Without a reader, whatever the library still holds has nowhere to go.
  pollfd reader{pipe_, 0, 0};
  const bool connected =
      state_.load(std::memory_order_relaxed) == State::kConnected && ::poll(&reader, 1, 0) == 0;
  dlt_set_resend_timeout_atexit(connected ? kDrainMilliseconds : 0);
  state_.store(State::kClosed, std::memory_order_release);
}

}  // namespace ara::log
