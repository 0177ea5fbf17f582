// Service discovery without sockets: sequences of messages of several peers, own wishes and time,
// against the state of both sides.
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "fuzz/world.h"
#include "platform/someip/discovery/discovery.h"

namespace {

using fuzz::Input;
using fuzz::require;
using someip::Endpoint;
using someip::Instance_key;

constexpr std::array<Instance_key, 2> provided{Instance_key{fuzz::provided_service, 1, 1},
                                               Instance_key{fuzz::provided_service, 2, 1}};
constexpr std::array<Instance_key, 3> used{Instance_key{fuzz::used_service, 1, 2},
                                           Instance_key{fuzz::used_service, 2, 2},
                                           Instance_key{fuzz::guarded_service, 1, 1}};

/// The node around discovery: believes what it is told and checks that it makes sense.
class World final : someip::Discovery_server_host, someip::Discovery_client_host {
 public:
  World(const someip::Deployment& deployment, std::uint8_t host)
      : deployment_(deployment),
        host_(host),
        discovery_(deployment,
                   deployment.nodes.front(),
                   fuzz::address(fuzz::own_address),
                   counters_,
                   log_,
                   {*this, *this, [this](const auto& bytes, const auto& to) { sent(bytes, to); },
                    [this](someip::Time next) { next_ = next; },
                    [](const someip::Address&, someip::Time) {}}) {}

  void step(Input& input) {
    messages_ = 0;
    switch (input.u8() % 16U) {
      case 0:
        pass(std::chrono::milliseconds(1));
        break;
      case 1:
        pass(std::chrono::milliseconds(input.u16()));
        break;
      case 2:
        pass(until_next());
        break;
      case 3:
        pass(std::chrono::seconds(input.u16()));
        break;
      case 4:
        offer(input.u8());
        break;
      case 5:
        search(input.u8());
        break;
      case 6:
        subscribe(input.u8());
        break;
      case 7:
        connection(input);
        break;
      case 8:
        host_ = input.u8();
        break;
      case 9:
        receive(input.bytes(input.u8()), input);
        break;
      default: {
        const auto from = fuzz::any_peer(input);
        const bool multicast = input.flag();
        const auto bytes = peers_.message(input, from, multicast);
        discovery_.received(fuzz::Exact{bytes}, from, multicast, now_);
        // Entries are bounded, and each asks for few messages.
        require(messages_ <= 64, "one datagram does not make many");
        break;
      }
    }
  }

  void stop() {
    discovery_.withdraw_all(now_);
    for (const auto& [group, all] : subscribers_) {
      require(all.empty(), "nobody is subscribed after the end");
    }
  }

 private:
  using Group = std::pair<Instance_key, std::uint16_t>;

  void pass(std::chrono::nanoseconds time) {
    now_ += time;
    // Timers without a delay may be due again at once, but not for ever.
    for (int round = 0; round < 64; ++round) {
      discovery_.on_time(now_);
      if (next_ > now_) return;
    }
    require(false, "time without an end to its work");
  }
  std::chrono::nanoseconds until_next() const {
    return next_ == someip::Time::max() || next_ < now_ ? std::chrono::nanoseconds(0)
                                                        : next_ - now_;
  }

  void receive(fuzz::Bytes bytes, Input& input) {
    const auto from = fuzz::any_endpoint(input);
    discovery_.received(fuzz::Exact{bytes}, from, input.flag(), now_);
  }

  void offer(std::uint8_t choice) {
    const auto& service = deployment_.services.front();
    const auto& instance = service.instances[choice & 1U];
    const auto& key = provided[choice & 1U];
    if ((choice & 2U) != 0) {
      discovery_.stop_offer(key, now_);
      offered_.erase(key);
      return;
    }
    someip::Offer offer;
    offer.key = key;
    offer.minor_version = service.minor_version;
    offer.endpoints.udp = Endpoint{fuzz::address(fuzz::own_address), *instance.udp_port};
    offer.groups[1].udp = true;
    offer.groups[2] = {true, false, Endpoint{fuzz::address(0xEFC04D4E), 30502},
                       1U + ((choice >> 2U) & 1U)};
    offer.groups[4] = {true, true, std::nullopt, 0};
    if ((choice & 8U) != 0) offer.allowed_peers = {fuzz::address(0x7F4D0103)};
    // What is offered already stays as it is.
    if (offered_.insert(key).second) lists_[key] = offer.allowed_peers;
    discovery_.offer(offer, now_);
  }

  void search(std::uint8_t choice) {
    const auto& key = used[choice % used.size()];
    auto wanted = key;
    if ((choice & 0x40U) != 0) wanted.instance = someip::any_instance;
    (choice & 0x80U) != 0 ? discovery_.stop_search(wanted, now_)
                          : discovery_.start_search(wanted, now_);
  }

  void subscribe(std::uint8_t choice) {
    const auto& key = used[choice % used.size()];
    const auto group = static_cast<std::uint16_t>(1 + ((choice >> 4U) & 1U));
    if ((choice & 0x80U) != 0) {
      discovery_.unsubscribe(key, group, now_);
      // Discovery does not report the end of a subscription that its own node has ended.
      if (!discovery_.active(key, group)) active_.erase({key, group});
    } else {
      const bool tcp = key.service == fuzz::guarded_service;
      discovery_.subscribe(key, group, {!tcp, tcp, std::nullopt, 0}, now_);
    }
  }

  void connection(Input& input) {
    const auto choice = input.u8();
    const Endpoint peer = fuzz::any_endpoint(input);
    switch (choice % 3U) {
      case 0:
        discovery_.connected(peer, now_);
        break;
      case 1:
        discovery_.connection_lost(peer, now_);
        break;
      default:
        discovery_.client_lost(peer, now_);
        break;
    }
  }

  void sent(const std::vector<std::byte>& bytes, const std::optional<Endpoint>& to) {
    ++messages_;
    someip::Datagram_reader reader(bytes);
    const auto view = reader.next();
    require(view && !reader.next() && !reader.malformed(), "a message sent is one message");
    require(view->payload.size() <= 1400, "a message sent fits one datagram");
    require(view->header.service == someip::discovery_service &&
                view->header.method == someip::discovery_method && view->header.session != 0,
            "a message sent has the header of discovery");
    const auto message = someip::read_discovery_message(view->payload, 1000);
    require(message && !message->entries.empty(), "a message sent says something");
    for (const auto& entry : message->entries) {
      require(!message->options_of(entry, true).fault, "the options of an entry are right");
      require(to.has_value() || !entry.about_event_group(),
              "entries of event groups go to one peer only");
    }
    if (to) {
      require(to->address != fuzz::address(fuzz::own_address) && to->port != 0 &&
                  !to->address.is_multicast(),
              "a message goes to a peer");
    }
  }

  // Discovery_server_host
  bool has_connection(const someip::Offer&, const Endpoint& client) override {
    return ((host_ >> (client.port % 3U)) & 1U) == 0;
  }
  void subscribers_changed(const Instance_key& key,
                           std::uint16_t group,
                           const std::vector<someip::Subscriber>& all) override {
    require(offered_.contains(key) || all.empty(), "subscribers are those of an offered instance");
    require(all.size() <= deployment_.limits.subscribers_per_event_group,
            "subscribers have a bound");
    for (const auto& one : all) {
      for (const auto& endpoint : {one.endpoints.udp, one.endpoints.tcp}) {
        require(!endpoint ||
                    someip::reachable_peer(endpoint->address, fuzz::address(fuzz::own_address), 16),
                "notifications go to endpoints on the link");
        require(!endpoint || endpoint->address == one.origin.sender,
                "notifications go to the address that has subscribed");
      }
      require(someip::allows(lists_[key], one.origin), "subscribers are on the list");
      const auto same = [&](const someip::Subscriber& other) {
        return other.origin.sender == one.origin.sender;
      };
      require(std::ranges::count_if(all, same) <=
                  static_cast<std::ptrdiff_t>(deployment_.limits.subscribers_per_address),
              "subscribers of one address have a bound");
    }
    subscribers_[{key, group}] = all;
  }
  std::size_t values_wanted(const Instance_key& key,
                            std::uint16_t group,
                            const std::vector<someip::Subscriber>& fresh) override {
    const auto& all = subscribers_[{key, group}];
    for (const auto& one : fresh) {
      require(std::ranges::find(all, one) != all.end(), "new subscribers are subscribers");
    }
    return 0;
  }

  /// Is everything that the offer names the one peer that may provide the guarded service?
  static bool allowed(const someip::Remote_offer& offer) {
    const auto guard = fuzz::address(0x7F4D0102);
    return offer.origin.sender == guard && offer.origin.peer.address == guard &&
           offer.endpoints.all([&](const Endpoint& one) { return one.address == guard; });
  }

  // Discovery_client_host
  void instance_available(const Instance_key& key, const someip::Remote_offer& offer) override {
    require(known_.insert(key).second, "an instance becomes available once");
    require(known_.size() <= deployment_.limits.remote_instances, "instances have a bound");
    require(offer.endpoints.udp || offer.endpoints.tcp, "an instance can be reached");
    require(key.service != fuzz::guarded_service || allowed(offer),
            "only allowed peers provide a guarded service, from allowed endpoints");
  }
  void instance_gone(const Instance_key& key, const someip::Loss&) override {
    require(known_.erase(key) == 1, "only a known instance goes");
  }
  void subscription_changed(const Instance_key& key, std::uint16_t group, bool active) override {
    if (active) {
      require(known_.contains(key), "a subscription is one to a known instance");
      require(active_.insert({key, group}).second, "a subscription becomes active once");
    } else {
      require(active_.erase({key, group}) == 1, "only an active subscription ends");
    }
  }
  void listen_to(const Instance_key& key, std::uint16_t, const Endpoint& group) override {
    require(known_.contains(key) && group.address.is_multicast(),
            "a multicast group comes with an instance");
  }
  bool has_delivered(const Instance_key&, const someip::Address&) override {
    return (host_ & 32U) != 0;
  }
  bool initial_value_missing(const Instance_key&, std::uint16_t) const override {
    return (host_ & 8U) != 0;
  }
  void doubt_connection(const Endpoint& server) override {
    require(server.port != 0, "a connection that is doubted is one");
  }
  Endpoint udp_endpoint() const override { return {fuzz::address(fuzz::own_address), 40001}; }
  std::optional<Endpoint> tcp_endpoint(const Endpoint&) override {
    if ((host_ & 16U) != 0) return std::nullopt;
    return Endpoint{fuzz::address(fuzz::own_address), 40002};
  }

  const someip::Deployment& deployment_;
  std::uint8_t host_;  ///< answers to discovery's questions, a bit each
  someip::Counters counters_;
  someip::Log log_{nullptr};
  someip::Time now_{std::chrono::seconds(1000)};
  fuzz::Discovery_source peers_;
  someip::Time next_ = someip::Time::max();  ///< deadline of discovery_
  std::size_t messages_ = 0;                 ///< sent in this step
  std::set<Instance_key> offered_, known_;
  std::map<Instance_key, std::vector<someip::Address>> lists_;  ///< of offered_
  std::set<Group> active_;
  std::map<Group, std::vector<someip::Subscriber>> subscribers_;
  someip::Discovery discovery_;
};

}  // namespace

// Variant, answers of the node, steps.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input{data, size};
  const auto& deployment = fuzz::deployment(!input.flag());
  World world(deployment, input.u8());
  for (int steps = 0; !input.empty() && steps < 200; ++steps)
    world.step(input);
  world.stop();
  return 0;
}
