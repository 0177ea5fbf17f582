/// The process's node on the network: sockets, discovery, what it uses and what it provides.
#pragma once

#include <atomic>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "platform/someip/closed_ports.h"
#include "platform/someip/counters.h"
#include "platform/someip/deployment.h"
#include "platform/someip/discovery.h"
#include "platform/someip/discovery_channel.h"
#include "platform/someip/event_routes.h"
#include "platform/someip/link_watch.h"
#include "platform/someip/log.h"
#include "platform/someip/pending_calls.h"
#include "platform/someip/provided_instance.h"
#include "platform/someip/segment_shaper.h"
#include "platform/someip/tcp_client.h"
#include "platform/someip/tcp_server.h"
#include "platform/someip/udp_port.h"
#include "platform/someip/workers.h"

namespace someip {

/// Somebody who looks for instances of a service.
class Search {
 public:
  virtual ~Search() = default;
  /// The offered instances, in the order in which they were first offered: at the start and on each
  /// change. Called on the control thread; must not wait.
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

/// How the event groups of a service travel; with an instance, also where their multicast goes.
[[nodiscard]] std::map<std::uint16_t, Group_transport> event_groups(
    const Service_deployment& service, const Instance_deployment* instance);

/// All public members may be called from any thread.
class Node final : private Discovery_server_host,
                   private Discovery_client_host,
                   private Udp_port::Receiver {
 public:
  /// Takes one of the node's addresses and begins to listen. The references outlive the node, the
  /// workers run. Throws std::runtime_error naming the manifest, the key and the address when all
  /// addresses of the node are taken.
  Node(const Deployment& deployment, const Node_deployment& node, Workers& workers, Log_sink log);
  /// Same as stop(). The workers must have been joined between the two.
  ~Node() override;
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  /// Says good-bye on the network (stop offers, stop subscriptions), closes everything and ends the
  /// calls that wait with Return_code::not_reachable. Not from the control thread.
  void stop();

  [[nodiscard]] const Address& address() const { return own_; }
  [[nodiscard]] const Counters& counters() const { return counters_; }
  [[nodiscard]] Counters& counters() { return counters_; }

  void start_search(const Service_deployment& service,
                    std::uint16_t instance,
                    std::shared_ptr<Search> search);
  void stop_search(std::shared_ptr<Search> search);

  void subscribe(const Event_selection& selection, std::shared_ptr<Event_sink> sink);
  void unsubscribe(std::shared_ptr<Event_sink> sink);

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
                      Bytes arguments);
  /// Ends the waiting calls of `owner` with Return_code::not_reachable, on the calling thread.
  void cancel_calls(const void* owner);

  /// Opens the ports of an instance. Throws std::runtime_error naming the key when one is taken.
  [[nodiscard]] std::shared_ptr<Provided_instance> provide(const Service_deployment& service,
                                                           const Instance_deployment& instance);
  void offer(std::shared_ptr<Provided_instance> instance);
  void stop_offer(std::shared_ptr<Provided_instance> instance);

 private:
  class Service_port;
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
  };
  struct Known_instance {
    Instance_key key;
    Remote_offer offer;
  };
  using Group_key = std::pair<Instance_key, std::uint16_t>;

  // Discovery_server_host
  bool has_connection(const Offer& offer, const Endpoint& client) override;
  void subscribers_changed(const Instance_key& key,
                           std::uint16_t event_group,
                           const std::vector<Subscriber>& all,
                           const std::vector<Subscriber>& fresh) override;
  void subscribers_settled(const Instance_key& key, std::uint16_t event_group) override;
  // Discovery_client_host
  void instance_available(const Instance_key& key, const Remote_offer& offer) override;
  void instance_gone(const Instance_key& key) override;
  void subscription_changed(const Instance_key& key,
                            std::uint16_t event_group,
                            bool active) override;
  void listen_to(const Instance_key& key,
                 std::uint16_t event_group,
                 const Endpoint& group) override;
  bool initial_value_missing(const Instance_key& key, std::uint16_t event_group) const override;
  Endpoint udp_endpoint() const override { return client_port_->local(); }
  void doubt_connection(const Endpoint& server) override { tcp_client_->probe(server); }
  std::optional<Endpoint> tcp_endpoint(const Endpoint& server) override {
    return tcp_client_->local_end(server);
  }
  // Udp_port::Receiver: what comes to the client's port and to the multicast ports
  void received(Received message, const Endpoint& from, Udp_port& port, Tasks& tasks) override;

  void take_address();
  [[nodiscard]] std::shared_ptr<Udp_port> open_client_port();
  void on_control(std::function<void()> work);
  void change(const std::function<void(Discovery_server&, Discovery_client&)>& work);
  void schedule();
  void schedule_calls();
  void expire_calls(bool all);
  void end_calls(std::vector<Pending_calls::Call> calls);
  void tell(const Running_search& search) const;
  void tell_searches(std::uint16_t service);
  void connect_route(Client_event& event, const Remote_offer& offer);
  void leave_multicast(const Group_key& key, const std::optional<Endpoint>& but = std::nullopt);
  void dispatch(Received message, const Endpoint& from, Transport transport, Tasks& tasks);
  void notification(Received message, const Endpoint& from, Transport transport, Tasks& tasks);
  [[nodiscard]] std::optional<Endpoint> endpoint_of(const Instance_key& instance,
                                                    Transport transport);
  [[nodiscard]] std::uint16_t fire_and_forget_session();
  void send_request(const Header& header,
                    Transport transport,
                    const Endpoint& to,
                    Bytes arguments,
                    Time deadline);
  [[nodiscard]] bool offered_over_tcp(const Endpoint& server) const;
  [[nodiscard]] std::shared_ptr<Service_port> udp_port(const Instance_deployment& instance);
  [[nodiscard]] std::shared_ptr<Tcp_service_port> tcp_port(const Instance_deployment& instance);
  [[nodiscard]] std::shared_ptr<Tcp_service_port> tcp_port_of(const Instance_key& key);
  [[nodiscard]] bool admit_connection();
  void peer_restarted(const Address& peer, Time last_contact);
  void connection_lost(const Endpoint& server);
  void link_changed(bool up);
  void port_closed(const Returned_datagram& returned);
  void release_connection(const Endpoint& server, bool even_if_offered);

  const Deployment& deployment_;
  const Node_deployment& node_;
  Workers& workers_;
  Log log_;
  Counters counters_;
  Shared_reassembler reassembler_;
  Request_budget requests_;
  Segment_shaper shaper_;
  Address own_;
  std::unique_ptr<Discovery_channel> channel_;
  std::shared_ptr<Udp_port> client_port_;
  Event_routes routes_;
  Pending_calls calls_;
  std::atomic<bool> calls_watched_{false};  ///< somebody will look at the deadlines of the calls
  std::atomic<std::uint16_t> fire_and_forget_sessions_{0};
  std::once_flag stopped_once_;

  std::mutex ports_mutex_;  ///< guards the two members below
  std::map<std::uint16_t, std::shared_ptr<Service_port>> udp_ports_;
  std::map<std::uint16_t, std::shared_ptr<Tcp_service_port>> tcp_ports_;

  std::mutex known_mutex_;  ///< guards known_ against readers: only the control thread writes
  std::vector<Known_instance> known_;  ///< in the order of their first offer

  // The control thread's own, after construction.
  bool stopped_ = false;
  std::unique_ptr<Discovery> discovery_;
  std::unique_ptr<Tcp_client> tcp_client_;
  Closed_ports closed_ports_;
  std::unique_ptr<Link_watch> link_;
  boost::asio::steady_timer timer_;
  boost::asio::steady_timer call_timer_;
  std::vector<Running_search> searches_;
  std::vector<Client_event> events_;
  std::map<Instance_key, std::shared_ptr<Provided_instance>> offered_;
  std::map<Endpoint, std::pair<std::shared_ptr<Udp_port>, std::set<Group_key>>> multicast_ports_;
};

}  // namespace someip
