/// The application's node and a gateway's node on a loopback network of their own, with the
/// deployment that is shipped: what is sent between them goes over real sockets.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "binding/codec.h"
#include "mw/com/runtime.h"
#include "platform/linux/com/make_runtime.h"
#include "platform/linux/com/manifest.h"
#include "tests/com/test_network.h"

class Wire {
 public:
  Wire() {
    const auto net = std::to_string(test::network());
    std::ifstream shipped{POS_MANIFEST_FILE};
    std::string text{std::istreambuf_iterator<char>{shipped}, {}};
    test::replace(text, "127.0.0.", "127." + net + ".0.");
    test::replace(text, "239.192.0.77", "239.192." + net + ".77");
    std::ofstream{path_} << text;
    setenv("POS_MANIFEST", path_.c_str(), 1);
    node_ = std::make_unique<mw::com::runtime::Component_singleton>("POS", false);
    gateway_ = tq::com::make_runtime(tq::com::parse_deployment(text, path_), "gnss-gateway");
  }
  ~Wire() { std::remove(path_.c_str()); }
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  [[nodiscard]] tq::com::Runtime& gateway() { return *gateway_; }

 private:
  const std::string path_ = "/tmp/pos_wire_" + std::to_string(getpid()) + ".json";
  std::unique_ptr<mw::com::runtime::Component_singleton> node_;
  std::unique_ptr<tq::com::Runtime> gateway_;
};

/// Sets a field of a provider by its name.
template <class Value>
void update(tq::com::Provider& provider, std::string_view field, const Value& value) {
  std::vector<std::byte> payload;
  binding::encode(value, payload);
  provider.notify(provider.element(field).notifier.value(), payload);
}

template <class Value>
Value decoded(tq::com::Payload payload) {
  Value value{};
  binding::Cursor cursor{payload};
  binding::decode(cursor, value);
  return value;
}
