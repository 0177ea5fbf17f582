// The whole runtime of a process, without threads and real sockets: proxies' consumers, provided
// instances and the node under them, against peers that send whatever they like in whatever order.
#include <cerrno>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/network.h"
#include "fuzz/player.h"
#include "fuzz/world.h"
#include "platform/linux/com/someip_consumer.h"
#include "platform/linux/com/someip_provider.h"
#include "platform/someip/node/node.h"
#include "platform/someip/wire/segmentation.h"

namespace {

using fuzz::Input;
using fuzz::Network;
using fuzz::Player;
using fuzz::require;
using someip::Endpoint;
using someip::Header;

class Search final : public someip::Search_sink {
 public:
  void found(const std::vector<std::uint16_t>& instances) override {
    const std::set<std::uint16_t> different(instances.begin(), instances.end());
    require(different.size() == instances.size(), "an instance is found once");
  }
};

/// An application that provides one service, uses another and does both at random.
class Application {
 public:
  explicit Application(const someip::Deployment& deployment)
      : deployment_(deployment), services_(deployment.services) {
    for (const auto& service : services_) {
      for (const auto& instance : service.instances) {
        providers_.push_back(std::make_unique<tq::com::Someip_provider>(service, instance, node_,
                                                                        deployment.source));
        provide_methods(service, *providers_.back());
      }
    }
    for (std::size_t i = 0; i < providers_.size(); ++i)
      offer(static_cast<std::uint8_t>(i));
    for (const auto& service : services_) {
      if (!service.instances.empty()) continue;
      used_.push_back(&service);
      for (const std::uint16_t instance : {std::uint16_t{1}, std::uint16_t{2}}) {
        consumers_.push_back(std::make_unique<tq::com::Someip_consumer>(
            std::make_shared<const tq::com::Remote_instance>(service, instance), node_, player_,
            deployment.limits));
      }
    }
    player_.settle();
  }

  void step(Input& input) {
    switch (input.u8() % 20U) {
      case 0:
        pass(std::chrono::milliseconds(input.u8()));
        break;
      case 1:
        pass(std::chrono::milliseconds(input.u16()));
        break;
      case 2:
        offer(input.u8());
        break;
      case 3:
        search(input.u8());
        break;
      case 4:
        subscribe(input.u8());
        break;
      case 5:
        call(input);
        break;
      case 6:
        publish(input);
        break;
      case 7:
        answer_call(input);
        break;
      case 8:
        acknowledge(input);
        break;
      case 9:
        stream(input);
        break;
      case 10:
        trouble(input.u8());
        break;
      case 11:
        anything(input);
        break;
      case 12:
      case 13:
      case 14:
        messages(input);
        break;
      default:
        discovery(input);
        break;
    }
    player_.read();
    look_at_sent();
  }

  void stop() {
    for (auto& consumer : consumers_)
      consumer.reset();
    for (auto& provider : providers_)
      provider.reset();
    player_.settle();
    player_.beside([&] { node_.stop(); });
    player_.settle();
    require(player_.idle(), "nothing is left to do after the end");
    for (const auto& [number, ended] : calls_)
      require(ended == 1, "a call ends once");
  }

 private:
  using Subscription_key = std::pair<std::size_t, std::string>;

  static void provide_methods(const someip::Service_deployment& service,
                              tq::com::Someip_provider& provider) {
    const auto echo = [](tq::com::Payload payload) {
      return tq::com::Response{{}, {payload.begin(), payload.end()}};
    };
    provider.set_method_handler(1, echo);
    if (service.id != fuzz::provided_service) return;
    provider.set_method_handler(4, echo);
    provider.set_method_handler(2, [](tq::com::Payload) { return tq::com::Response{}; });
    provider.set_method_handler(
        3, [](tq::com::Payload) -> tq::com::Response { throw std::runtime_error("no"); });
    provider.set_method_handler(17, [&provider](tq::com::Payload payload) {
      provider.notify(0x8002, payload);
      return tq::com::Response{};
    });
  }

  void pass(std::chrono::nanoseconds time) {
    Network::instance().pass(time);
    player_.time_has_passed();
  }

  void offer(std::uint8_t choice) {
    auto& provider = *providers_[(choice & 0x0FU) % providers_.size()];
    (choice & 0x80U) == 0 ? provider.offer() : provider.stop_offer();
    player_.settle();
  }

  void search(std::uint8_t choice) {
    const auto& service = *used_[choice & 1U];
    const std::uint16_t instance = (choice & 2U) == 0 ? someip::any_instance : 1;
    auto& running = searches_[choice & 3U];
    if (running) {
      node_.client().searches().stop(std::exchange(running, nullptr));
    } else {
      running = std::make_shared<Search>();
      node_.client().searches().start(service, instance, running);
    }
    player_.settle();
  }

  void subscribe(std::uint8_t choice) {
    const std::size_t number = choice % consumers_.size();
    const std::string element = (choice & 0x10U) != 0 && number < 2 ? "state" : "tick";
    auto& consumer = *consumers_[number];
    if ((choice & 0x80U) != 0) {
      consumer.unsubscribe(element);
      subscribed_.erase({number, element});
      player_.settle();
      return;
    }
    // A second one replaces the first.
    auto active = std::make_shared<bool>(false);
    const Subscription_key key{number, element};
    subscribed_[key] = active;
    consumer.subscribe(
        element,
        [this, key, active](tq::com::Payload payload) {
          require(subscribed_.contains(key) && subscribed_[key] == active,
                  "only a present handler is called");
          require(payload.size() <= deployment_.limits.message_bytes, "a payload has a bound");
        },
        [active](bool now) {
          require(*active != now, "the state of a subscription is told when it changes");
          *active = now;
        });
    player_.settle();
  }

  void call(Input& input) {
    const auto choice = input.u8();
    auto& consumer = *consumers_[choice & 3U];
    const std::vector<std::byte> arguments(input.u8() *
                                           std::size_t{(choice & 0x40U) != 0 ? 16U : 1U});
    if ((choice & 0x80U) != 0) {
      consumer.call_no_return(1, arguments);
    } else {
      const auto number = calls_.size();
      calls_[number] = 0;
      consumer.call((choice & 6U) == 4U ? 16 : 1, arguments,
                    [this, number](tq::com::Return_code code, tq::com::Payload payload) {
                      ++calls_[number];
                      require(code == tq::com::Return_code::ok || payload.empty(),
                              "only a good answer has a payload");
                    });
    }
    player_.settle();
  }

  void publish(Input& input) {
    constexpr std::array<std::uint16_t, 5> events{0x8001, 0x8002, 0x8003, 0x8004, 0x8005};
    const auto choice = input.u8();
    const std::vector<std::byte> value(input.u8() * std::size_t{(choice & 0x40U) != 0 ? 64U : 1U});
    providers_[choice & 1U]->notify(events[((choice >> 1U) & 0x1FU) % events.size()], value);
    player_.settle();
  }

  /// The server answers one of the last requests, or somebody else does.
  void answer_call(Input& input) {
    const auto choice = input.u8();
    const auto code = input.u8();
    if (requests_.empty()) return;
    const auto& [header, server] = requests_[choice % requests_.size()];
    constexpr std::array<std::uint8_t, 4> types{0x80, 0x81, 0xA0, 0x02};
    Header answer = header;
    answer.type = types[(choice >> 5U) & 3U];
    answer.code = code < 0x40 ? code & 0x3FU : 0;
    auto body = input.bytes(input.u8());
    const auto head = someip::header_bytes(answer, body.size());
    std::vector<std::byte> bytes(head.begin(), head.end());
    bytes.insert(bytes.end(), body.begin(), body.end());
    deliver(bytes, code >= 0xF0 ? fuzz::any_endpoint(input) : server, client_port());
  }

  /// A provider acknowledges, or refuses, what the node has asked of it last.
  void acknowledge(Input& input) {
    const auto choice = input.u8();
    if (!asked_) return;
    auto bytes = asked_->bytes;
    const auto view = someip::Datagram_reader(bytes).next();
    const auto message = someip::read_discovery_message(view->payload, 1000);
    if (!message) return;
    someip::Discovery_writer writer;
    for (const auto& entry : message->entries) {
      if (entry.type != someip::Entry_type::subscribe) continue;
      auto answer = entry;
      answer.type = someip::Entry_type::subscribe_ack;
      if ((choice & 1U) != 0) answer.ttl = 0;
      std::vector<someip::Option> options;
      if ((choice & 6U) == 6U) {
        options.push_back(someip::Option::multicast({fuzz::address(0xEFC04D50), 30510}));
      }
      static_cast<void>(writer.add(answer, options));
    }
    deliver(writer.message(++acknowledgements_, (choice & 8U) == 0), asked_->to,
            {fuzz::address(fuzz::own_address), 30490});
  }

  void discovery(Input& input) {
    const auto from = fuzz::any_peer(input);
    const bool multicast = input.flag();
    const auto bytes = peers_.message(input, from, multicast);
    deliver(bytes, from, {fuzz::address(multicast ? 0xEFC04D4D : fuzz::own_address), 30490});
  }

  void anything(Input& input) {
    const auto bytes = input.bytes(input.u8());
    const auto from = fuzz::any_endpoint(input);
    deliver(bytes, from, port(input));
  }

  void messages(Input& input) {
    const auto count = 1U + (input.u8() & 1U);
    const auto from = fuzz::any_endpoint(input);
    const auto to = port(input);
    std::vector<std::byte> bytes;
    for (unsigned i = 0; i < count; ++i) {
      const auto message = fuzz::any_message(input);
      bytes.insert(bytes.end(), message.begin(), message.end());
    }
    deliver(bytes, from, to);
  }

  void stream(Input& input) {
    const auto choice = input.u8();
    auto& network = Network::instance();
    switch (choice % 6U) {
      case 0:
        network.connect(fuzz::any_endpoint(input), {fuzz::address(fuzz::own_address), 30501});
        break;
      case 1:
        network.send(choice >> 5U, input.bytes(input.u8()));
        break;
      case 2:
        network.end(choice >> 5U);
        break;
      case 3:
        network.accept_connections((choice & 0x80U) != 0);
        break;
      case 4:
        network.read_all();
        break;
      default:
        network.send(choice >> 5U, fuzz::any_message(input));
        break;
    }
    player_.settle();
  }

  void trouble(std::uint8_t choice) {
    constexpr std::array<int, 6> errors{0, EAGAIN, ENETUNREACH, ECONNREFUSED, ENOBUFS, 0};
    Network::instance().fail_sending(errors[choice % errors.size()]);
  }

  Endpoint port(Input& input) {
    constexpr std::array<std::uint16_t, 5> ports{30501, 30503, 0, 30490, 30501};
    const auto chosen = input.pick(ports);
    return chosen == 0 ? client_port() : Endpoint{fuzz::address(fuzz::own_address), chosen};
  }
  /// The first that was given to a socket that did not ask for one.
  static Endpoint client_port() { return {fuzz::address(fuzz::own_address), 40000}; }

  void deliver(fuzz::Bytes bytes, const Endpoint& from, const Endpoint& to) {
    Network::instance().deliver(bytes, from, to);
  }

  void look_at_sent() {
    for (auto& datagram : Network::instance().take_sent()) {
      require(datagram.bytes.size() <= someip::header_size + someip::max_datagram_payload,
              "a datagram is not fragmented");
      require(datagram.to.port != 0 && !datagram.to.address.is_unspecified(),
              "a datagram goes somewhere");
      const auto view = someip::Datagram_reader(datagram.bytes).next();
      require(view && view->header.protocol == 1, "what is sent is SOME/IP");
      if (view->header.service == someip::discovery_service) {
        if (!datagram.to.address.is_multicast()) asked_ = std::move(datagram);
      } else if (view->header.is(someip::Message_type::request)) {
        requests_.emplace_back(view->header, datagram.to);
        if (requests_.size() > 8) requests_.pop_front();
      }
    }
  }

  const someip::Deployment& deployment_;
  const std::vector<someip::Service_deployment>& services_;
  std::map<std::size_t, int> calls_;  ///< how often each has ended
  std::map<Subscription_key, std::shared_ptr<bool>> subscribed_;
  std::map<unsigned, std::shared_ptr<Search>> searches_;
  fuzz::Discovery_source peers_;
  std::deque<std::pair<Header, Endpoint>> requests_;
  std::optional<Network::Datagram> asked_;  ///< the last message of discovery to a single peer
  std::uint16_t acknowledgements_ = 0x7000;
  Player player_;
  someip::Node node_{deployment_, deployment_.nodes.front(), player_,
                     [](someip::Log_level, const std::string&) {}};
  std::vector<std::unique_ptr<tq::com::Someip_provider>> providers_;
  std::vector<const someip::Service_deployment*> used_;
  std::vector<std::unique_ptr<tq::com::Someip_consumer>> consumers_;  ///< two of each used service
};

}  // namespace

// Variant of the deployment, then steps.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input{data, size};
  Network::instance().reset();
  {
    Application application(fuzz::deployment(!input.flag()));
    for (int steps = 0; !input.empty() && steps < 200; ++steps)
      application.step(input);
    application.stop();
  }
  return 0;
}
