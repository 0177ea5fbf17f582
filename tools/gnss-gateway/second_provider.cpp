#include "tools/gnss-gateway/second_provider.h"

#include <stdexcept>

#if GATEWAY_ON_LINUX
#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <iterator>
#include <utility>

#include "platform/linux/com/make_runtime.h"
#include "platform/linux/com/manifest.h"
#endif

namespace gateway {

#if GATEWAY_ON_LINUX

namespace {

constexpr int addresses_to_try = 4;

/// The next address in numerical order.
template <class Address>
Address following(const Address& address) {
  auto bytes = address.to_bytes();
  for (auto byte = bytes.rbegin(); byte != bytes.rend() && ++*byte == 0; ++byte) {
  }
  return Address(bytes);
}

boost::asio::ip::address following(const boost::asio::ip::address& address) {
  if (address.is_v4()) return following(address.to_v4());
  return following(address.to_v6());
}

/// The gateway's node at other addresses.
std::unique_ptr<tq::com::Runtime> make_second_runtime(const std::string& name) {
  auto deployment = tq::com::load_deployment(name);
  for (auto& node : deployment.nodes) {
    if (node.name != name) continue;
    node.local_socket = false;
    auto address = node.addresses.front();
    node.addresses.clear();
    std::generate_n(std::back_inserter(node.addresses), addresses_to_try,
                    [&] { return address = following(address); });
  }
  return tq::com::make_runtime(std::move(deployment), name);
}

class Someip_second_provider final : public Second_provider {
 public:
  explicit Someip_second_provider(const std::string& node)
      : runtime_(make_second_runtime(node)),
        provider_(runtime_->provide(Encoded_gnss::name, "GNSS_ProvidedSomeipServiceInstance")) {}
  ~Someip_second_provider() override { provider_->close(); }
  Someip_second_provider(const Someip_second_provider&) = delete;
  Someip_second_provider& operator=(const Someip_second_provider&) = delete;

  /// Offers with the first values, so that no subscriber finds a field without one.
  void update(const Encoded_instant& instant) override {
    update(Encoded_gnss::positions.name, instant.positions);
    update(Encoded_gnss::positionsQuality.name, instant.quality);
    update(Encoded_gnss::posGnssSatInfos.name, instant.satellites);
    if (!std::exchange(offered_, true)) provider_->offer();
  }

 private:
  void update(std::string_view field, const std::optional<Encoded_payload>& value) {
    const auto notifier = provider_->element(field).notifier;
    if (value && notifier) provider_->notify(*notifier, value->bytes);
  }

  const std::unique_ptr<tq::com::Runtime> runtime_;
  const std::unique_ptr<tq::com::Provider> provider_;
  bool offered_ = false;
};

}  // namespace

std::unique_ptr<Second_provider> make_second_provider(const std::string& node) {
  return std::make_unique<Someip_second_provider>(node);
}

#else

std::unique_ptr<Second_provider> make_second_provider(const std::string&) {
  throw std::runtime_error("a second provider needs the platform linux");
}

#endif

}  // namespace gateway
