#include "platform/someip/base/endpoint.h"

#include <algorithm>

namespace someip {

namespace {

bool same_prefix(const auto& a, const auto& b, unsigned prefix_length) {
  for (std::size_t i = 0; i < a.size() && prefix_length > 0; ++i) {
    const unsigned bits = std::min(prefix_length, 8u);
    const auto mask = static_cast<unsigned char>(0xFFu << (8 - bits));
    if ((a[i] & mask) != (b[i] & mask)) return false;
    prefix_length -= bits;
  }
  return true;
}

bool is_broadcast(const boost::asio::ip::address_v4& address,
                  const boost::asio::ip::address_v4& own,
                  unsigned prefix_length) {
  if (address == boost::asio::ip::address_v4::broadcast()) return true;
  if (prefix_length == 0 || prefix_length >= 31) return false;
  const std::uint32_t host_bits = 0xFFFFFFFFu >> prefix_length;
  return address.to_uint() == (own.to_uint() | host_bits);
}

}  // namespace

Address local_address(std::uint32_t number, bool v4) {
  using namespace boost::asio::ip;
  const address_v4 address(number);
  return v4 ? Address(address) : Address(make_address_v6(v4_mapped, address));
}

bool is_local_address(const Address& address) {
  constexpr std::uint32_t numbers = 0xFFFFFF;
  if (address.is_v4()) {
    const std::uint32_t number = address.to_v4().to_uint();
    return number != 0 && number <= numbers;
  }
  const boost::asio::ip::address_v6 v6 = address.to_v6();
  return v6.is_v4_mapped() &&
         is_local_address(boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, v6));
}

bool reachable_peer(const Address& address, const Address& own, unsigned prefix_length) {
  if (address.is_v4() != own.is_v4() || address.is_unspecified() || address.is_multicast() ||
      is_local_address(address)) {
    return false;
  }
  if (address.is_v4()) {
    return !is_broadcast(address.to_v4(), own.to_v4(), prefix_length) &&
           same_prefix(address.to_v4().to_bytes(), own.to_v4().to_bytes(), prefix_length);
  }
  return same_prefix(address.to_v6().to_bytes(), own.to_v6().to_bytes(), prefix_length);
}

}  // namespace someip
