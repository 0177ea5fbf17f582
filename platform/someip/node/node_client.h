/// The using side of a node: searches, subscriptions, calls, and what comes back for them.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "platform/someip/discovery/discovery.h"
#include "platform/someip/net/tcp_client.h"
#include "platform/someip/node/event_routes.h"
#include "platform/someip/node/node_context.h"
#include "platform/someip/node/pending_calls.h"

namespace someip {

/// A search for the instances of a service.
class Search {
 public:
  virtual ~Search() = default;
  /// The offered instances, at the start and on each change. In front are those whose present
  /// provider was the first to deliver their events, in the order of these deliveries, so that a
  /// stranger's instance does not displace them. The others follow in the order in which they were
  /// first offered. Called on the control thread; must not wait.
  virtual void found(const std::vector<std::uint16_t>& instances) = 0;
};

/// An event that somebody wants.
struct Event_selection {
  Instance_key instance;
  std::uint16_t event = 0;
  std::uint16_t event_group = 0;
  Transport transport = Transport::udp;  ///< of the event
  Group_transport group;                 ///< of all events of the group
  bool field = false;
};

/// What users of the node ask for may come from any thread, see Node; the rest says where it runs.
class Node_client final : public Message_receiver, public Discovery_client_host {
 public:
  /// Opens the port of the node's client. Throws std::runtime_error naming the key. Does not use
  /// `discovery` before the control thread calls.
  Node_client(const Node_context& context, Discovery& discovery);

  void start_search(const Service_deployment& service,
                    std::uint16_t instance,
                    std::shared_ptr<Search> search);
  void stop_search(std::shared_ptr<Search> search);
  void subscribe(const Event_selection& selection, std::shared_ptr<Event_sink> sink);
  void unsubscribe(std::shared_ptr<Event_sink> sink);
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
  void cancel_calls(const void* owner);

  /// From now on messages come.
  void open() { port_->open_with_threads(); }
  /// Control thread: connects anew to what was connected before `last_contact`.
  void peer_restarted(const Address& peer, Time last_contact) {
    tcp_client_.restart(peer, last_contact);
  }
  /// Control thread: closes what lives there.
  void stop();
  /// Any other thread, after stop().
  void close_port() { port_->close(); }
  /// Ends all calls that wait, on the calling thread.
  void end_calls();

  // Discovery_client_host
  void instance_available(const Instance_key& key, const Remote_offer& offer) override;
  void instance_gone(const Instance_key& key) override;
  bool has_delivered(const Instance_key& key, const Address& provider) override;
  void subscription_changed(const Instance_key& key,
                            std::uint16_t event_group,
                            bool active) override;
  void listen_to(const Instance_key& key,
                 std::uint16_t event_group,
                 const Endpoint& group) override;
  bool initial_value_missing(const Instance_key& key, std::uint16_t event_group) const override;
  Endpoint udp_endpoint() const override { return port_->local(); }
  void doubt_connection(const Endpoint& server) override { tcp_client_.probe(server); }
  std::optional<Endpoint> tcp_endpoint(const Endpoint& server) override {
    return tcp_client_.local_end(server);
  }
  // Message_receiver: what comes to the client's port and to the multicast ports
  void received(Received message, const Endpoint& from, Tasks& tasks) override;

 private:
  class Answer;
  struct Client_event {
    Event_selection selection;
    std::shared_ptr<Event_sink> sink;
    // While the instance is offered:
    std::optional<Event_routes::Key> route;
    std::optional<Endpoint> connection;  ///< the server that a group over TCP needs one to
  };
  struct Running_search {
    std::uint16_t service, instance;
    std::uint8_t major_version;
    std::shared_ptr<Search> search;
    bool changed = false;  ///< since its result was delivered last
  };
  struct Known_instance {
    Instance_key key;
    Remote_offer offer;
  };
  using Group_key = std::pair<Instance_key, std::uint16_t>;
  struct First_delivery {
    Address provider;
    std::size_t rank;  ///< number of instances that delivered before
  };

  [[nodiscard]] std::shared_ptr<Udp_port> open_port();
  [[nodiscard]] Tcp_client::Events tcp_events();
  void tell(const Running_search& search);
  void tell_searches(std::uint16_t service);
  /// Remembers the provider of the instance if it is the first that has delivered an event.
  void note_delivery(const Instance_key& key);
  void tell_changed_searches();
  void connect_route(Client_event& event, const Remote_offer& offer);
  void leave_multicast(const Group_key& key, const std::optional<Endpoint>& but = std::nullopt);
  void release_if_unused(const Endpoint& server);
  void connection_lost(const Endpoint& server);
  void dispatch(Received message, const Endpoint& from, Transport transport, Tasks& tasks);
  void notification(Received message, const Endpoint& from, Transport transport, Tasks& tasks);
  [[nodiscard]] std::optional<Endpoint> endpoint_of(const Instance_key& instance,
                                                    Transport transport);
  [[nodiscard]] bool offered_over_tcp(const Endpoint& server) const;
  [[nodiscard]] std::uint16_t fire_and_forget_session();
  void send_request(const Header& header,
                    Transport transport,
                    const Endpoint& to,
                    Bytes arguments,
                    const void* owner,
                    Time deadline);
  void schedule_calls();
  void time_out(std::vector<Pending_calls::Call> calls);

  const Node_context& context_;
  Discovery& discovery_;
  Counters& counters_;
  const std::shared_ptr<Udp_port> port_;
  Event_routes routes_;
  Pending_calls calls_;
  std::atomic<bool> calls_watched_{false};  ///< somebody will look at the deadlines of the calls
  std::atomic<std::uint16_t> fire_and_forget_sessions_{0};

  std::mutex known_mutex_;  ///< guards known_ against readers: only the control thread writes
  std::vector<Known_instance> known_;  ///< in the order of their first offer

  // The control thread's own.
  Tcp_client tcp_client_;
  /// The living owners of what has been sent to a server by TCP, while it offers something there.
  std::map<Endpoint, std::set<const void*>> senders_;
  Control_timer call_timer_;
  std::vector<Running_search> searches_;
  Control_timer search_timer_;
  bool searches_scheduled_ = false;
  Time searches_told_{};  ///< the last time that results were delivered
  std::vector<Client_event> events_;
  std::map<Instance_key, First_delivery> first_deliveries_;
  std::map<Endpoint, std::pair<std::shared_ptr<Udp_port>, std::set<Group_key>>> multicast_ports_;
};

}  // namespace someip
