/// The node's calls of methods of others: requests, their responses and time-outs.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "platform/someip/net/received.h"
#include "platform/someip/net/udp_port.h"
#include "platform/someip/node/client_connections.h"
#include "platform/someip/node/known_instances.h"
#include "platform/someip/node/node_context.h"
#include "platform/someip/node/pending_calls.h"

namespace someip {

/// Sends requests, matches their responses and ends them at their time-out. Each section of members
/// names the thread that calls it.
class Calls {
 public:
  /// Requests over UDP leave through `port`, unless the context has a local client.
  Calls(const Node_context& context,
        const Known_instances& known,
        Client_connections& connections,
        Udp_port* port);

  // Any thread

  /// The handler is called once: on a thread of the node, or on the calling one when the request
  /// cannot be sent.
  void call(const Instance_key& instance,
            std::uint16_t method,
            Transport transport,
            Bytes arguments,
            const void* owner,
            Response_handler handler);
  void call_no_return(const Instance_key& instance,
                      std::uint16_t method,
                      Transport transport,
                      Bytes arguments,
                      const void* owner);
  /// Ends the waiting calls of `owner` with Return_code::not_reachable, on the calling thread. The
  /// requests it has sent still leave. Then connections without another user are closed.
  void cancel(const void* owner);
  /// Does the same for the calls of all owners.
  void cancel_all();

  // The receiving threads

  /// Passes a response or an error to the handler of its call.
  void response(Received message, const Endpoint& from, Transport transport, Tasks& tasks);

  // The control thread

  /// The calls over this connection time out.
  void connection_lost(const Endpoint& server);
  /// All calls time out.
  void local_connection_lost();
  /// No call times out after it.
  void stop_time_outs() { timer_.cancel(); }

 private:
  class Answer;

  void send(const Header& header,
            Transport transport,
            const Endpoint& to,
            Bytes arguments,
            const void* owner,
            Time deadline);
  [[nodiscard]] std::uint16_t fire_and_forget_session();
  void schedule();
  void time_out(std::vector<Pending_calls::Call> calls);

  const Node_context& context_;
  const Known_instances& known_;
  Client_connections& connections_;
  Udp_port* const port_;
  Pending_calls pending_;
  std::atomic<bool> watched_{false};  ///< the control thread will look at the deadlines
  std::atomic<std::uint16_t> fire_and_forget_sessions_{0};
  Control_timer timer_;  ///< the control thread's own
};

}  // namespace someip
