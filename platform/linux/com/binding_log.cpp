#include <array>
#include <chrono>
#include <exception>
#include <mutex>
#include <string_view>
#include <utility>

#include "ara/log/logger.h"
#include "mw/com/cpp_binding/log.h"

namespace mw::com::cpp_binding {

namespace {

using ara::log::LogLevel;

ara::log::Logger& logger() {
  static auto& instance = ara::log::CreateLogger("MWCB", "Communication binding");
  return instance;
}

/// Lets ten lines a second through and counts the others.
class Rate_limit {
 public:
  struct Verdict {
    bool write;
    unsigned suppressed;  ///< since the last line that was written
  };

  Verdict ask() {
    const auto now = std::chrono::steady_clock::now();
    const std::lock_guard lock{mutex_};
    if (now - window_ >= std::chrono::seconds{1}) {
      window_ = now;
      written_ = 0;
    }
    if (written_ == 10) {
      ++suppressed_;
      return {false, 0};
    }
    ++written_;
    return {true, std::exchange(suppressed_, 0)};
  }

 private:
  std::mutex mutex_;  ///< guards the members below
  std::chrono::steady_clock::time_point window_;
  unsigned written_ = 0;
  unsigned suppressed_ = 0;
};

template <class... Arguments>
void write_limited(Rate_limit& limit, ara::log::LogLevel level, const Arguments&... arguments) {
  const auto verdict = limit.ask();
  if (!verdict.write) return;
  auto line = logger().Stream(level);
  (line << ... << arguments);
  if (verdict.suppressed != 0) line << "; suppressed before:" << verdict.suppressed;
}

}  // namespace

void log_get_without_value(std::uint16_t method) {
  static Rate_limit limit;
  write_limited(limit, LogLevel::kWarn,
                "Get handler enabled but not configured and Update not called; Method_id=", method);
}

void log_notify_without_value(std::uint16_t event) {
  static Rate_limit limit;
  write_limited(limit, LogLevel::kWarn, "Notify enabled but Update not called; Event_id=", event);
}

void log_malformed_payload(std::string_view service,
                           std::string_view element,
                           std::string_view error) {
  static Rate_limit limit;
  write_limited(limit, LogLevel::kError, "Dropped a malformed payload of", service, element, error);
}

void log_handler_exception(Handler handler, std::string_view service, std::string_view element) {
  static Rate_limit limit;
  constexpr std::array<std::string_view, 4> texts{
      "An exception left the receive handler of", "An exception left the state handler of",
      "An exception left the find-service handler of", "An exception left the method handler of"};
  const auto write = [&](std::string_view error) {
    write_limited(limit, LogLevel::kError, texts[static_cast<std::size_t>(handler)], service,
                  element, error);
  };
  try {
    throw;
  } catch (const std::exception& error) {
    write(error.what());
  } catch (...) {
    write("not a std::exception");
  }
}

}  // namespace mw::com::cpp_binding
