#include <chrono>
#include <mutex>
#include <string>
#include <utility>

#include "ara/com/types.h"
#include "ara/log/logger.h"
#include "mw/com/cpp_binding/log.h"

namespace mw::com::cpp_binding {

namespace {

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

}  // namespace

void log_get_without_value(std::uint16_t method) {
  logger().LogWarn() << "Get handler enabled but not configured and Update not called; Method_id="
                     << method;
}

void log_notify_without_value(std::uint16_t event) {
  logger().LogWarn() << "Notify enabled but Update not called; Event_id=" << event;
}

void log_malformed_payload(std::string_view service,
                           std::string_view element,
                           std::string_view error) {
  static Rate_limit limit;
  const auto verdict = limit.ask();
  if (!verdict.write) return;
  auto line = logger().LogError();
  line << "Dropped a malformed payload of" << service << element << error;
  if (verdict.suppressed != 0) line << "; suppressed before:" << verdict.suppressed;
}

}  // namespace mw::com::cpp_binding

namespace ara::com {

namespace {

std::string_view name_of(tq::com::Return_code code) {
  using enum tq::com::Return_code;
  switch (code) {
    case ok:
      return "E_OK";
    case not_ok:
      return "E_NOT_OK";
    case unknown_service:
      return "E_UNKNOWN_SERVICE";
    case unknown_method:
      return "E_UNKNOWN_METHOD";
    case not_ready:
      return "E_NOT_READY";
    case not_reachable:
      return "E_NOT_REACHABLE";
    case timeout:
      return "E_TIMEOUT";
    case wrong_protocol_version:
      return "E_WRONG_PROTOCOL_VERSION";
    case wrong_interface_version:
      return "E_WRONG_INTERFACE_VERSION";
    case malformed_message:
      return "E_MALFORMED_MESSAGE";
    case wrong_message_type:
      return "E_WRONG_MESSAGE_TYPE";
  }
  return "service error";
}

}  // namespace

std::string ToString(tq::com::Return_code code) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  const auto value = static_cast<unsigned>(code);
  std::string text{name_of(code)};
  return text.append(" (0x").append({digits[value >> 4U], digits[value & 0xFU]}).append(")");
}

ServiceError::ServiceError(tq::com::Return_code code)
    : std::runtime_error{"service call failed: " + ToString(code)}, code_{code} {}

}  // namespace ara::com
