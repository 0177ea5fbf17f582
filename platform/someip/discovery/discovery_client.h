/// The using side of service discovery: searches, the offers that are known, and own subscriptions.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "platform/someip/base/counters.h"
#include "platform/someip/discovery/discovery_delays.h"
#include "platform/someip/discovery/discovery_outbox.h"
#include "platform/someip/discovery/discovery_types.h"

namespace someip {

/// An offer that a peer has made and that is in force.
struct Remote_offer {
  Origin origin;
  std::uint32_t minor_version = 0;
  Instance_endpoints endpoints;
};

/// Why an offer is no longer in force.
struct Loss {
  enum class Cause : std::uint8_t {
    stop_offer,
    not_renewed,
    peer_restarted,
    link_down,
    moved,    ///< to another endpoint
    replaced  ///< by the provider that had delivered before
  };
  Cause cause;
  Origin origin;               ///< of the offer
  Time::duration since_offer;  ///< the last one
};

/// An offer of a service that the deployment has, which does not fit.
struct Misfit {
  enum class Cause : std::uint8_t { version, no_udp, no_tcp, not_allowed, unusable_endpoint };
  Cause cause;
  Instance_key key;  ///< as it is offered
  Origin origin;
};

/// The node as the using side of discovery sees it: receives changes and answers questions. No
/// member calls discovery.
class Discovery_client_host {
 public:
  virtual ~Discovery_client_host() = default;
  virtual void instance_available(const Instance_key& key, const Remote_offer& offer) = 0;
  virtual void instance_gone(const Instance_key& key, const Loss& loss) = 0;
  /// Called with each such offer, repetitions included.
  virtual void misfit_offered(const Misfit&, Time /*now*/) {}
  /// The provider has refused a subscription for the first time since it was acknowledged or
  /// offered.
  virtual void refused_by(const Origin& /*provider*/, const Instance_key&, std::uint16_t) {}
  /// True if `provider` was the first address to deliver events of the instance.
  [[nodiscard]] virtual bool has_delivered(const Instance_key& key, const Address& provider) = 0;
  /// A subscription was acknowledged for the first time, or has ended.
  virtual void subscription_changed(const Instance_key& key,
                                    std::uint16_t event_group,
                                    bool active) = 0;
  /// The acknowledgement names a multicast address on which events of the group may come.
  virtual void listen_to(const Instance_key& key,
                         std::uint16_t event_group,
                         const Endpoint& group) = 0;
  /// True if an acknowledged subscription to fields has not brought a value yet.
  [[nodiscard]] virtual bool initial_value_missing(const Instance_key& key,
                                                   std::uint16_t event_group) const = 0;
  /// The endpoint to which providers send events over UDP.
  [[nodiscard]] virtual Endpoint udp_endpoint() const = 0;
  /// A subscription over the connection to `server` was refused: it may be open on our side only.
  virtual void doubt_connection(const Endpoint& server) = 0;
  /// The own end of the TCP connection to `server`. Begins to connect, and gives nothing, while
  /// there is none; Discovery_client::connected() follows.
  [[nodiscard]] virtual std::optional<Endpoint> tcp_endpoint(const Endpoint& server) = 0;
};

/// Runs the searches of the node, remembers the offers of peers and keeps subscriptions alive.
/// Lives on one thread. Entries go to the outbox, which the caller flushes.
class Discovery_client {
 public:
  Discovery_client(const Discovery_timing& timing,
                   const Limits& limits,
                   Discovery_delays& delays,
                   Discovery_outbox& outbox,
                   Counters& counters,
                   Discovery_client_host& host)
      : timing_(timing),
        limits_(limits),
        delays_(delays),
        outbox_(outbox),
        counters_(counters),
        host_(host) {}

  // See Discovery for the members that have the same name there.
  void start_search(const Instance_key& wanted, Time now);
  void stop_search(const Instance_key& wanted);

  void subscribe(const Instance_key& key,
                 std::uint16_t event_group,
                 const Group_transport& transport,
                 Time now);
  void unsubscribe(const Instance_key& key, std::uint16_t event_group, Time now);
  [[nodiscard]] bool active(const Instance_key& key, std::uint16_t event_group) const;
  /// Sends a stop for every subscription.
  void unsubscribe_all(Time now);

  /// An offer or, with time to live 0, a stop offer whose options and peer have been found
  /// acceptable.
  void offered(const Entry& entry,
               const Instance_endpoints& endpoints,
               const Origin& from,
               bool multicast,
               bool explicit_initial_data,
               Time now);
  void acknowledged(const Entry& entry, const Entry_options& options, const Origin& from, Time now);
  /// The peer has restarted, so all its offers are void.
  void forget_peer(const Origin& peer, Time now);
  /// The TCP connection to `server` stands: subscribes the groups that waited for it.
  void connected(const Endpoint& server, Time now);
  /// The connection broke: the subscriptions over it are void until it stands again.
  void connection_lost(const Endpoint& server);

  /// All offers of peers are void; searches wait for the link.
  void link_down(Time now);
  /// Every search begins with its initial wait phase.
  void link_up(Time now);

  void on_time(Time now);
  [[nodiscard]] Time next_deadline() const;

  enum class State : std::uint8_t { none, requested, active };
  struct Subscription {
    std::size_t users = 0;
    Group_transport transport;
    State state = State::none;
    bool refused = false;     ///< by the provider, and not acknowledged since
    bool supervised = false;  ///< requested because of a multicast offer, not acknowledged yet
    bool refresh = false;     ///< the values are wanted again although the subscription is active
    bool gathered = false;    ///< its entry leaves at gathering_end_
    bool initial_data =
        false;  ///< asked for by the last entry, which a stop repeats (someipsd_333)
    Time expires = Time::max();  ///< while active: when it ends unless acknowledged again
  };
  using Group_key = std::pair<Instance_key, std::uint16_t>;

  [[nodiscard]] const std::map<Group_key, Subscription>& subscriptions() const {
    return subscriptions_;
  }
  /// When a known offer ends unless it is renewed.
  [[nodiscard]] std::optional<Time> end_of_offer(const Instance_key& key) const;

 private:
  enum class Phase : std::uint8_t { initial_wait, repetition, silent };
  struct Search {
    std::size_t users = 0;
    Phase phase = Phase::initial_wait;
    std::uint32_t repetitions = 0;
    Time next;
  };
  struct Remote {
    Remote_offer offer;
    bool explicit_initial_data = false;
    Time renewed;
    Time expires;
  };
  /// The subscriptions to one peer that wait for `due` after an offer.
  struct Trigger {
    Time due;
    std::map<Instance_key, bool> instances;  ///< with: came by multicast
  };
  using Remotes = std::map<Instance_key, Remote>;

  [[nodiscard]] bool satisfied(const Instance_key& wanted) const;
  void begin_search(Search& search, Time now);
  /// `restart`: searches that no remaining offer satisfies begin again.
  Remotes::iterator remove(Remotes::iterator remote, Loss::Cause cause, bool restart, Time now);
  void trigger(const Instance_key& key, const Endpoint& peer, bool multicast, Time now);
  void request(const Group_key& key,
               Subscription& subscription,
               const Remote& remote,
               bool by_multicast);
  void request_all(const Instance_key& key, bool by_multicast);
  void request_with_others(Subscription& subscription, Time now);
  void set_state(const Group_key& key, Subscription& subscription, State state);
  [[nodiscard]] static Entry subscribe_entry(const Group_key& key,
                                             const Subscription& subscription,
                                             std::uint32_t ttl);
  [[nodiscard]] std::optional<std::vector<Option>> own_endpoints(const Group_transport& transport,
                                                                 const Remote& remote);

  const Discovery_timing& timing_;
  const Limits& limits_;
  Discovery_delays& delays_;
  Discovery_outbox& outbox_;
  Counters& counters_;
  Discovery_client_host& host_;
  bool link_up_ = true;
  std::map<Instance_key, Search> searches_;  ///< by the wanted instance
  Remotes remotes_;
  std::map<Address, std::size_t> offered_by_;  ///< number of remotes_ by their sender
  Time next_expiry_ = Time::max();             ///< none of remotes_ expires before it
  std::map<Group_key, Subscription> subscriptions_;
  Time gathering_end_ = Time::max();      ///< of the gathered subscriptions
  std::map<Endpoint, Trigger> triggers_;  ///< by peer
};

}  // namespace someip
