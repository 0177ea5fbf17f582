/// Requests that wait for their response.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/someip/base/deployment.h"
#include "platform/someip/base/endpoint.h"
#include "platform/someip/base/time.h"
#include "platform/someip/wire/message.h"

namespace someip {

using tq::com::Response_handler;

/// Holds sent requests, by session id, until their response or time-out. Thread-safe. The thread
/// that takes a call out calls its handler.
class Pending_calls {
 public:
  struct Call {
    std::uint16_t service = 0;
    std::uint16_t method = 0;
    std::uint8_t interface_version = 0;
    Endpoint server;
    Transport transport = Transport::udp;
    const void* owner = nullptr;
    Time deadline;
    Response_handler handler;
  };

  explicit Pending_calls(std::size_t limit) : limit_(limit) {}

  /// The session id to send; nothing, and `call` untouched, when the bound is reached.
  [[nodiscard]] std::optional<std::uint16_t> add(Call& call);
  /// The call that a response belongs to: same ids, same version, same endpoint.
  [[nodiscard]] std::optional<Call> take(const Header& response,
                                         const Endpoint& from,
                                         Transport transport);
  [[nodiscard]] std::vector<Call> take_if(const std::function<bool(const Call&)>& predicate);
  [[nodiscard]] Time next_deadline() const;

 private:
  const std::size_t limit_;
  mutable std::mutex mutex_;  ///< guards the members below
  std::uint16_t last_session_ = 0;
  std::map<std::uint16_t, Call> calls_;  ///< by session id
};

}  // namespace someip
