#include <string>
#include <string_view>

#include "ara/com/types.h"
#include "platform/someip/base/hexadecimal.h"

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
  return std::string{name_of(code)} + " (" +
         someip::hexadecimal(static_cast<std::uint32_t>(code), 2) + ")";
}

ServiceError::ServiceError(tq::com::Return_code code)
    : std::runtime_error{"service call failed: " + ToString(code)}, code_{code} {}

}  // namespace ara::com
