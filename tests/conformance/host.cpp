/// A process that provides and uses the services of its manifest as its standard input says, one
/// command a line, and prints one line for everything that happens. The conformance tests put it on
/// the other end of the wire where the application does not have what they look at.
///
///   offer SPECIFIER
///   stop SPECIFIER
///   update SPECIFIER NOTIFIER HEX                  a field's value
///   event SPECIFIER EVENT HEX
///   find SERVICE
///   subscribe SERVICE INSTANCE ELEMENT [CONSUMER]
///   unsubscribe SERVICE INSTANCE ELEMENT
///   call SERVICE INSTANCE METHOD HEX [COUNT]       COUNT calls, one after the other
///   send SERVICE INSTANCE METHOD HEX               without a response
///   count NAME                                     a counter of the runtime
///
/// A payload without bytes is written "-". "done" follows each command. The end of the input ends
/// the process in good order.
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

class Host {
 public:
  explicit Host(const someip::Deployment& deployment)
      : deployment_(deployment), runtime_(tq::com::make_runtime(deployment, "host")) {}

  void command(std::istringstream words) {
    const auto word = [&] {
      std::string text;
      words >> text;
      return text;
    };
    const auto number = [&] { return static_cast<std::uint16_t>(std::stoul(word(), nullptr, 0)); };
    const std::string what = word();
    if (what == "offer") {
      provider(word()).offer();
    } else if (what == "stop") {
      provider(word()).stop_offer();
    } else if (what == "update" || what == "event") {
      tq::com::Provider& instance = provider(word());
      const std::uint16_t id = *instance.element(word()).notifier;
      const Bytes value = unhex(word());
      what == "event" ? instance.send_event(id, value) : instance.update_field(id, value);
    } else if (what == "find") {
      const std::string service = word();
      static_cast<void>(runtime_->start_find_service(
          service, std::nullopt,
          [this, service](const std::vector<tq::com::Found_instance>& found) {
            std::string line = "found " + service;
            {
              const std::lock_guard lock(found_mutex_);
              for (const auto& one : found) {
                found_.insert_or_assign({service, one.instance}, one);
                line += " " + std::to_string(one.instance);
              }
            }
            print(line);
          }));
    } else if (what == "subscribe" || what == "unsubscribe") {
      const std::string service = word();
      const std::uint16_t instance = number();
      const std::string element = word();
      tq::com::Consumer& user = consumer(service, instance, word());
      const std::string name = service + " " + std::to_string(instance) + " " + element;
      if (what == "unsubscribe") {
        user.unsubscribe(element);
        return;
      }
      user.subscribe(
          element, [name](Payload payload) { print("notification " + name + " " + hex(payload)); },
          [name](bool on) { print("state " + name + (on ? " on" : " off")); });
    } else if (what == "call" || what == "send") {
      const std::string service = word();
      tq::com::Consumer& user = consumer(service, number(), "");
      const std::uint16_t method = *user.element(word()).method;
      const Bytes arguments = unhex(word());
      std::uint32_t count = 1;
      words >> count;
      if (what == "send") {
        user.call_no_return(method, arguments);
      } else {
        call(user, method, arguments, count);
      }
    } else if (what == "count") {
      const std::string name = word();
      for (const auto& [known, value] : runtime_->counters()) {
        if (known == name) print("count " + name + " " + std::to_string(value));
      }
    } else {
      throw std::runtime_error("unknown command " + what);
    }
  }

 private:
  tq::com::Provider& provider(const std::string& specifier) {
    auto& present = providers_[specifier];
    if (present) return *present;
    for (const auto& service : deployment_.services) {
      if (std::ranges::none_of(service.instances, [&](const auto& instance) {
            return instance.specifier == specifier;
          })) {
        continue;
      }
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
              if (notifier) instance.update_field(*notifier, value);
              return Response{Return_code::ok, std::move(value)};
            });
      }
      return *present;
    }
    throw std::runtime_error("no instance " + specifier);
  }

  tq::com::Consumer& consumer(const std::string& service,
                              std::uint16_t instance,
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

  void call(tq::com::Consumer& user, std::uint16_t method, Bytes arguments, std::uint32_t count) {
    user.call(method, arguments,
              [this, &user, method, arguments, count](Return_code code, Payload payload) {
                if (count > 1) {
                  call(user, method, arguments, count - 1);
                } else {
                  char head[32];
                  std::snprintf(head, sizeof head, "response 0x%02x ", static_cast<unsigned>(code));
                  print(head + hex(payload));
                }
              });
  }

  const someip::Deployment& deployment_;
  std::mutex found_mutex_;  ///< guards found_
  std::map<std::pair<std::string, std::uint16_t>, tq::com::Found_instance> found_;
  std::unique_ptr<tq::com::Runtime> runtime_;
  std::map<std::string, std::unique_ptr<tq::com::Provider>> providers_;
  std::map<std::tuple<std::string, std::uint16_t, std::string>, std::unique_ptr<tq::com::Consumer>>
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
