/// A process that provides and uses the services of its manifest as its standard input says, one
/// command a line (see Host::command), and prints one line for everything that happens. The
/// conformance tests put it on the other end of the wire where the application does not have what
/// they look at. A payload without bytes is written "-". "done" follows each command. The end of
/// the input ends the process in good order.
#include <algorithm>
#include <boost/algorithm/hex.hpp>
#include <cstdio>
#include <exception>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "ara/core/initialization.h"
#include "platform/linux/com/make_runtime.h"
#include "platform/linux/com/manifest.h"
#include "platform/someip/base/byte_order.h"
#include "tq/com/runtime.h"

namespace {

using tq::com::Payload;
using tq::com::Provider;
using tq::com::Response;
using tq::com::Return_code;
using Bytes = std::vector<std::byte>;

std::mutex output_mutex;  // guards standard output

void print(const std::string& line) {
  const std::lock_guard lock(output_mutex);
  std::cout << line << '\n' << std::flush;
}

std::string hex(Payload payload) {
  if (payload.empty()) return "-";
  std::string text;
  const std::string_view bytes(reinterpret_cast<const char*>(payload.data()), payload.size());
  boost::algorithm::hex_lower(bytes, std::back_inserter(text));
  return text;
}

Bytes unhex(const std::string& text) {
  if (text == "-") return {};
  const std::string content = boost::algorithm::unhex(text);
  const auto bytes = std::as_bytes(std::span(content));
  return {bytes.begin(), bytes.end()};
}

/// What the methods of the test services do, by name.
Response run(const std::string& method, Payload arguments) {
  Response response;
  if (method == "echo") {
    response.payload.assign(arguments.begin(), arguments.end());
  } else if (method == "size") {
    response.payload.resize(4);
    someip::store32(response.payload.data(), static_cast<std::uint32_t>(arguments.size()));
  } else if (method == "make") {
    response.payload.resize(someip::load32(arguments.data()));
    for (std::size_t i = 0; i < response.payload.size(); ++i) {
      response.payload[i] = static_cast<std::byte>(i % 251);
    }
  } else if (method == "fail") {
    response.code = static_cast<Return_code>(someip::load32(arguments.data()));
  } else {
    print("request " + method + " " + hex(arguments));
  }
  return response;
}

std::string word(std::istringstream& words) {
  std::string one;
  words >> one;
  return one;
}

class Host {
  using Words = std::istringstream;

 public:
  explicit Host(const someip::Deployment& deployment)
      : deployment_(deployment), runtime_(tq::com::make_runtime(deployment, "host")) {}

  void command(Words words) {
    static const std::map<std::string, void (Host::*)(Words&)> commands{
        {"offer", &Host::offer},              // SPECIFIER
        {"stop", &Host::stop},                // SPECIFIER
        {"notify", &Host::notify},            // SPECIFIER ELEMENT HEX
        {"find", &Host::find},                // SERVICE
        {"subscribe", &Host::subscribe},      // SERVICE INSTANCE ELEMENT [CONSUMER]
        {"unsubscribe", &Host::unsubscribe},  // SERVICE INSTANCE ELEMENT
        {"call", &Host::call},                // SERVICE INSTANCE METHOD HEX [COUNT]
        {"send", &Host::call_no_return},      // SERVICE INSTANCE METHOD HEX
        {"count", &Host::count}};             // NAME, of the runtime's counter
    (this->*commands.at(word(words)))(words);
  }

 private:
  void offer(Words& words) { provider(word(words)).offer(); }
  void stop(Words& words) { provider(word(words)).stop_offer(); }
  void notify(Words& words) {
    Provider& instance = provider(word(words));
    const std::uint16_t id = *instance.element(word(words)).notifier;
    instance.notify(id, unhex(word(words)));
  }
  void find(Words& words) {
    const std::string service = word(words);
    static_cast<void>(runtime_->start_find_service(
        service, std::nullopt, [this, service](const std::vector<tq::com::Found_instance>& found) {
          std::string line = "found " + service;
          {
            const std::lock_guard lock(found_mutex_);
            for (const auto& one : found) {
              found_.insert_or_assign({service, std::to_string(one.instance)}, one);
              line += " " + std::to_string(one.instance);
            }
          }
          print(line);
        }));
  }
  void subscribe(Words& words) {
    const std::string service = word(words), instance = word(words), element = word(words);
    const std::string name = service + " " + instance + " " + element;
    consumer(service, instance, word(words))
        .subscribe(
            element,
            [name](Payload payload) { print("notification " + name + " " + hex(payload)); },
            [name](bool on) { print("state " + name + (on ? " on" : " off")); });
  }
  void unsubscribe(Words& words) { user(words).unsubscribe(word(words)); }
  void call(Words& words) {
    tq::com::Consumer& caller = user(words);
    const std::uint16_t method = *caller.element(word(words)).method;
    const Bytes arguments = unhex(word(words));
    const std::string count = word(words);
    repeat(caller, method, arguments, count.empty() ? 1 : std::stoul(count));
  }
  void call_no_return(Words& words) {
    tq::com::Consumer& caller = user(words);
    const std::uint16_t method = *caller.element(word(words)).method;
    caller.call_no_return(method, unhex(word(words)));
  }
  void count(Words& words) {
    const std::string name = word(words);
    for (const auto& [known, value] : runtime_->counters()) {
      if (known == name) print("count " + name + " " + std::to_string(value));
    }
  }

  Provider& provider(const std::string& specifier) {
    auto& present = providers_[specifier];
    if (present) return *present;
    for (const auto& service : deployment_.services) {
      const auto is_it = [&](const auto& instance) { return instance.specifier == specifier; };
      if (std::ranges::none_of(service.instances, is_it)) continue;
      present = runtime_->provide(service.name, specifier);
      for (const auto& method : service.methods) {
        present->set_method_handler(
            method.id, [name = method.name](Payload arguments) { return run(name, arguments); });
      }
      for (const auto& field : service.fields) {
        if (!field.setter) continue;
        present->set_method_handler(
            *field.setter, [&instance = *present, notifier = field.notifier](Payload arguments) {
              // What a field takes has seven bits.
              Bytes value(arguments.begin(), arguments.end());
              for (std::byte& byte : value)
                byte &= std::byte{0x7F};
              if (notifier) instance.notify(*notifier, value);
              return Response{Return_code::ok, std::move(value)};
            });
      }
      return *present;
    }
    throw std::runtime_error("no instance " + specifier);
  }

  tq::com::Consumer& consumer(const std::string& service,
                              const std::string& instance,
                              const std::string& name) {
    auto& present = consumers_[{service, instance, name}];
    if (!present) {
      tq::com::Found_instance found;
      {
        const std::lock_guard lock(found_mutex_);
        found = found_.at({service, instance});
      }
      present = runtime_->connect(found);
    }
    return *present;
  }

  /// The consumer of the instance that comes next, without a name.
  tq::com::Consumer& user(Words& words) {
    const std::string service = word(words);
    return consumer(service, word(words), "");
  }

  void repeat(tq::com::Consumer& user, std::uint16_t method, Bytes arguments, std::size_t count) {
    user.call(method, arguments,
              [this, &user, method, arguments, count](Return_code code, Payload payload) {
                if (count > 1) {
                  repeat(user, method, arguments, count - 1);
                } else {
                  char head[32];
                  std::snprintf(head, sizeof head, "response 0x%02x ", static_cast<unsigned>(code));
                  print(head + hex(payload));
                }
              });
  }

  const someip::Deployment& deployment_;
  std::mutex found_mutex_;  ///< guards found_
  std::map<std::pair<std::string, std::string>, tq::com::Found_instance> found_;
  std::unique_ptr<tq::com::Runtime> runtime_;
  std::map<std::string, std::unique_ptr<Provider>> providers_;
  std::map<std::tuple<std::string, std::string, std::string>, std::unique_ptr<tq::com::Consumer>>
      consumers_;
};

}  // namespace

int main() try {
  ara::core::Initialize({.name = "pos", .node = "host"});
  const someip::Deployment deployment = tq::com::load_deployment("host");
  Host host(deployment);
  print("ready");
  for (std::string line; std::getline(std::cin, line);) {
    try {
      host.command(std::istringstream(line));
    } catch (const std::exception& error) {
      print("error " + line + ": " + error.what());
    }
    print("done");
  }
  return 0;
} catch (const std::exception& error) {
  std::cerr << error.what() << '\n';
  return 1;
}
