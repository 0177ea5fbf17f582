/// Types of messages that the communication middleware and the SOME/IP runtime under it share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace tq::com {

using Payload = std::span<const std::byte>;

/// Return code of a SOME/IP response. Values 0x20 to 0x3F belong to the service interface.
enum class Return_code : std::uint8_t {
  ok = 0x00,
  not_ok = 0x01,
  unknown_service = 0x02,
  unknown_method = 0x03,
  not_ready = 0x04,
  not_reachable = 0x05,  ///< internal: the instance is not or no longer offered
  timeout = 0x06,        ///< internal: no response in time
  wrong_protocol_version = 0x07,
  wrong_interface_version = 0x08,
  malformed_message = 0x09,
  wrong_message_type = 0x0A,
};

/// Called once per request: with ok and the response's payload, or with the reason of the failure
/// and an empty payload.
using Response_handler = std::function<void(Return_code, Payload)>;

/// A provider's answer to one request.
struct Response {
  Return_code code = Return_code::ok;
  std::vector<std::byte> payload;
};
/// Called on a worker thread for each request; requests of one provider may run in parallel. An
/// exception is answered with Return_code::not_ok.
using Method_handler = std::function<Response(Payload)>;

}  // namespace tq::com
