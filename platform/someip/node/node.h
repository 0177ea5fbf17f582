/// The process's node on the network: its address, its service discovery, its using and its
/// providing side.
#pragma once

#include <memory>
#include <mutex>

#include "mw/com/statistics.h"
#include "platform/someip/discovery/discovery.h"
#include "platform/someip/net/discovery_channel.h"
#include "platform/someip/net/link_watch.h"
#include "platform/someip/net/local_client.h"
#include "platform/someip/node/control.h"
#include "platform/someip/node/node_client.h"
#include "platform/someip/node/node_context.h"
#include "platform/someip/node/node_server.h"

namespace someip {

/// Runs the process's node: on the network, or through the Unix socket of another node. Any thread
/// may call all public members.
class Node final {
 public:
  /// Takes the first free one of the node's addresses and begins to listen, or connects to the Unix
  /// socket that the node goes through. The references outlive the node, the workers run. Throws
  /// std::runtime_error naming the manifest, the key and the address when none of the addresses is
  /// free.
  Node(const Deployment& deployment, const Node_deployment& node, Workers& workers, Log_sink log);
  /// Call stop() and join the workers first.
  ~Node();
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  /// Withdraws every offer and subscription, closes everything and ends the waiting calls with
  /// Return_code::not_reachable. Not from the control thread.
  void stop();

  [[nodiscard]] Node_client& client() { return client_; }
  [[nodiscard]] Node_server& server() { return server_; }
  [[nodiscard]] const Address& address() const { return own_; }
  /// The subscribers and providers of this process. Waits for the control thread, which therefore
  /// must not call it. Throws std::runtime_error if that thread has ended or does not answer in
  /// time.
  [[nodiscard]] mw::com::runtime::Peers peers();
  [[nodiscard]] const Counters& counters() const { return counters_; }
  [[nodiscard]] Counters& counters() { return counters_; }

 private:
  void start();
  /// The channel of the first address that is free.
  [[nodiscard]] std::unique_ptr<Discovery_channel> take_address(const Deployment& deployment,
                                                                const Node_deployment& node);
  /// The path through the Unix socket of another node.
  [[nodiscard]] std::unique_ptr<Local_client> make_local_client(const Deployment& deployment,
                                                                const Node_deployment& node,
                                                                Workers& workers);
  void send_discovery(const std::vector<std::byte>& message,
                      const Discovery_outbox::Destination& to);
  /// Logs a warning when the node provides services and no list restricts any service.
  void warn_of_open_services();
  void datagram_received(Bytes datagram, const Endpoint& from, bool multicast);
  void peer_restarted(const Address& peer, Time last_contact);
  void schedule(Time next);
  void link_changed(bool up);

  Log log_;
  Counters counters_;
  Control control_;
  Shared_reassembler reassembler_;
  Segment_shaper shaper_;
  const std::unique_ptr<Discovery_channel> channel_;  ///< one of these two is null
  const std::unique_ptr<Local_client> local_;
  const Address own_;
  const Node_context context_;
  // Both sides take a reference to discovery_ and use it on the control thread only.
  Node_client client_;
  Node_server server_;
  std::once_flag stopped_once_;

  // The control thread's own, after construction.
  Discovery discovery_;
  const std::unique_ptr<Link_watch> link_;
  Control_timer timer_;  ///< for the next deadline of discovery_
};

}  // namespace someip
