#include <string>
#include <string_view>

#include "ara/com/types.h"

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
