// A process on the network for tests that are played from outside: it does what the lines on its
// standard input say and writes what happens to its standard output.
//
//   provide <service> <specifier>     offer | stop-offer
//   update <element> <hex>            send <element> <hex>
//   find <service>                    subscribe <element> | unsubscribe <element>
//   call <element> <hex>              counters
//   quit
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "ara/log/logger.h"
#include "mw/com/runtime.h"
#include "tq/com/runtime.h"

namespace {

using tq::com::Payload;

/// The lines of several threads, one at a time.
void say(const std::string& line) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  std::cout << line << std::endl;
}

std::string to_hex(Payload payload) {
  std::string digits;
  char two[3];
  for (const std::byte byte : payload) {
    std::snprintf(two, sizeof two, "%02x", std::to_integer<unsigned>(byte));
    digits += two;
  }
  return digits.empty() ? "-" : digits;
}

std::vector<std::byte> from_hex(const std::string& digits) {
  std::vector<std::byte> bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes.push_back(static_cast<std::byte>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

class Peer {
 public:
  Peer() = default;
  ~Peer() {
    if (search_) tq::com::Runtime::instance().stop_find_service(*search_);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  void execute(const std::string& line) {
    std::istringstream words(line);
    std::string command, first, second;
    words >> command >> first >> second;
    if (command == "provide") provide(first, second);
    if (command == "offer") provider_->offer();
    if (command == "stop-offer") provider_->stop_offer();
    if (command == "update") provider_->update_field(notifier(*provider_, first), from_hex(second));
    if (command == "send") provider_->send_event(notifier(*provider_, first), from_hex(second));
    if (command == "find") find(first);
    if (command == "subscribe") subscribe(first);
    if (command == "unsubscribe") consumer()->unsubscribe(first);
    if (command == "call") call(first, second);
    if (command == "counters") {
      for (const auto& [name, value] : tq::com::Runtime::instance().counters()) {
        say("counter " + std::string(name) + " " + std::to_string(value));
      }
      say("counters-end");
    }
  }

 private:
  static std::uint16_t notifier(const tq::com::Provider& provider, const std::string& element) {
    return provider.element(element).notifier.value();
  }

  std::shared_ptr<tq::com::Consumer> consumer() {
    const std::lock_guard lock(mutex_);
    return consumer_;
  }

  void provide(const std::string& service, const std::string& specifier) {
    provider_ = tq::com::Runtime::instance().provide(service, specifier);
    const auto echo = [](Payload arguments) {
      say("request " + to_hex(arguments));
      return tq::com::Response{tq::com::Return_code::ok, {arguments.begin(), arguments.end()}};
    };
    provider_->set_method_handler(provider_->element("echo").method.value(), echo);
    provider_->set_method_handler(provider_->element("poke").method.value(), echo);
    say("provided");
  }

  void find(const std::string& service) {
    search_ = tq::com::Runtime::instance().start_find_service(
        service, {}, [this](const std::vector<tq::com::Found_instance>& found) {
          std::string line = "found";
          for (const auto& one : found)
            line += " " + std::to_string(one.instance);
          {
            const std::lock_guard lock(mutex_);
            if (!consumer_ && !found.empty()) {
              consumer_ = tq::com::Runtime::instance().connect(found.front());
            }
          }
          say(line);
        });
  }

  void subscribe(const std::string& element) {
    consumer()->subscribe(
        element,
        [element](Payload payload) { say("notification " + element + " " + to_hex(payload)); },
        [element](bool active) { say("state " + element + (active ? " true" : " false")); });
  }

  void call(const std::string& element, const std::string& arguments) {
    const auto ids = consumer()->element(element);
    const auto id = ids.method ? ids.method : ids.getter;
    consumer()->call(
        id.value(), from_hex(arguments), [](tq::com::Return_code code, Payload payload) {
          say("response " + std::to_string(static_cast<int>(code)) + " " + to_hex(payload));
        });
  }

  std::unique_ptr<tq::com::Provider> provider_;
  std::optional<tq::com::Find_token> search_;
  std::mutex mutex_;  ///< guards consumer_
  std::shared_ptr<tq::com::Consumer> consumer_;
};

}  // namespace

int main(int argc, char** argv) {
  try {
    ara::log::InitLogging("PEER", "middleware peer", ara::log::LogLevel::kWarn,
                          ara::log::LogMode::kConsole, "");
    const mw::com::runtime::Component_singleton runtime(argc > 1 ? argv[1] : "", false);
    Peer peer;
    say("ready");
    for (std::string line; std::getline(std::cin, line) && line != "quit";)
      peer.execute(line);
  } catch (const std::exception& error) {
    say(std::string("error ") + error.what());
    return 1;
  }
  return 0;
}
