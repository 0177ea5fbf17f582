/// The providing side of a node: its offered instances and their subscribers.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "mw/com/statistics.h"
#include "platform/someip/discovery/discovery.h"
#include "platform/someip/net/local_server.h"
#include "platform/someip/node/node_context.h"
#include "platform/someip/node/provided_instance.h"
#include "platform/someip/node/service_ports.h"

namespace someip {

/// How the event groups of a service travel; with an instance, also where their multicast goes.
[[nodiscard]] std::map<std::uint16_t, Group_transport> event_groups(
    const Service_deployment& service, const Instance_deployment* instance);

/// Opens the ports of provided instances, offers these and serves their subscribers. Lives on the
/// control thread, except provide(), offer(), stop_offer() and ports().
class Node_server final : public Discovery_server_host {
 public:
  /// Listens at the Unix socket of the node, if it has one; logs a warning if that is impossible.
  /// Does not use `discovery` before the control thread calls.
  Node_server(const Node_context& context, Discovery& discovery);

  /// Opens the ports of an instance. Throws std::runtime_error naming the key when another process
  /// uses one of them.
  [[nodiscard]] std::shared_ptr<Provided_instance> provide(
      const Service_deployment& service,
      const Instance_deployment& instance,
      const Value_missing_handler& value_missing);
  void offer(std::shared_ptr<Provided_instance> instance);
  void stop_offer(std::shared_ptr<Provided_instance> instance);

  // For the node

  [[nodiscard]] Service_ports& ports() { return ports_; }
  /// Control thread: appends the offered instances and their subscribers.
  void list(mw::com::runtime::Peers& peers, Time now) const;
  /// Accepts clients of the Unix socket, and watches for others that have closed their ports.
  void start();
  /// Closes every connection and accepts no new one.
  void close_connections();
  /// Sends a discovery message to the client of the Unix socket with this address, or to all of
  /// them.
  void send_local_discovery(Bytes message, const std::optional<Address>& to);

  // Discovery_server_host
  bool has_connection(const Offer& offer, const Endpoint& client) override;
  void subscribers_changed(const Instance_key& key,
                           std::uint16_t event_group,
                           const std::vector<Subscriber>& all) override;
  std::size_t values_wanted(const Instance_key& key,
                            std::uint16_t event_group,
                            const std::vector<Subscriber>& fresh) override;
  [[nodiscard]] std::uint64_t sent_to_all(const Instance_key& key,
                                          std::uint16_t event_group) const override;
  void subscription_refused(const Refusal& refusal) override;
  void subscribers_settled(const Instance_key& key, std::uint16_t event_group) override;

 private:
  [[nodiscard]] std::shared_ptr<Event_targets> targets_of(
      const Provided_instance& instance, const std::vector<Subscriber>& subscribers);
  [[nodiscard]] std::shared_ptr<Local_server> listen_locally();
  void received(const Local_frame& frame, const std::shared_ptr<Local_connection>& client);
  void port_closed(const Returned_datagram& returned);

  const Node_context& context_;
  Discovery& discovery_;
  Service_ports ports_;
  const std::shared_ptr<Local_server> local_;  ///< null: no Unix socket
  std::map<Instance_key, std::shared_ptr<Provided_instance>>
      offered_;  ///< the control thread's own
};

}  // namespace someip
