#include <array>
#include <chrono>
#include <cstdint>
#include <exception>
#include <mutex>
#include <optional>
#include <string_view>

#include "ara/log/logger.h"
#include "mw/com/cpp_binding/log.h"
#include "platform/someip/base/rate_limit.h"

namespace mw::com::cpp_binding {

namespace {

using ara::log::LogLevel;

ara::log::Logger& logger() {
  static auto& instance = ara::log::CreateLogger("MWCB", "Communication binding");
  return instance;
}

/// Ten lines a second.
class Line_limit {
 public:
  [[nodiscard]] std::optional<std::uint64_t> admit() {
    const std::lock_guard lock{mutex_};
    return limit_.admit();
  }

 private:
  std::mutex mutex_;  ///< guards the member below
  someip::Rate_limit limit_{10, std::chrono::seconds{1}};
};

template <class... Arguments>
void write_limited(Line_limit& limit, ara::log::LogLevel level, const Arguments&... arguments) {
  const auto suppressed = limit.admit();
  if (!suppressed) return;
  auto line = logger().Stream(level);
  (line << ... << arguments);
  if (*suppressed != 0) line << "; suppressed before:" << *suppressed;
}

}  // namespace

void log_get_without_value(std::uint16_t method) {
  static Line_limit limit;
  write_limited(limit, LogLevel::kWarn,
                "Get handler enabled but not configured and Update not called; Method_id=", method);
}

void log_notify_without_value(std::uint16_t event) {
  static Line_limit limit;
  write_limited(limit, LogLevel::kWarn, "Notify enabled but Update not called; Event_id=", event);
}

void log_malformed_payload(std::string_view service,
                           std::string_view element,
                           std::string_view error) {
  static Line_limit limit;
  write_limited(limit, LogLevel::kError, "Dropped a malformed payload of", service, element, error);
}

void log_handler_exception(Handler handler, std::string_view service, std::string_view element) {
  static Line_limit limit;
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
