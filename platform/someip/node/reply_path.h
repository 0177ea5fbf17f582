/// A received request: the path of its response, its refusal and its identity in the log.
#pragma once

#include <cstddef>
#include <memory>

#include "platform/someip/base/endpoint.h"
#include "platform/someip/base/task.h"
#include "platform/someip/net/stream.h"
#include "platform/someip/net/udp_port.h"
#include "platform/someip/node/request_budget.h"
#include "platform/someip/wire/message.h"

namespace someip {

/// The path of a response back to the client.
struct Reply_path {
  std::shared_ptr<Udp_port> udp;   ///< with `to`; or
  std::shared_ptr<Stream> stream;  ///< the connection that the request came over
  Socket_address to;

  void send(const Header& header, Bytes payload) const;
};

/// Adds the task that answers `request` with an error. Only requests that expect a response and
/// carry no error themselves are answered with errors (someip_597, someip_654, someip_704).
void refuse(const Header& request,
            Return_code code,
            Reply_path reply,
            Request_budget::Place place,
            Tasks& tasks);

/// Identifies the requests of one client to one method, for Log::repeated().
[[nodiscard]] std::size_t repetition_key(const Header& request, const Address& from);

}  // namespace someip
