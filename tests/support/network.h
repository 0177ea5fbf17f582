/// A loopback network of the test program's own, from the range of free_network() in
/// tests/python/desk.py.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio/ip/tcp.hpp>
#include <stdexcept>
#include <string>

namespace test {

/// The N of the network 127.N.x.y. The process claims it until its end, with the same endpoint as
/// a Python test would.
inline int network() {
  static const int claimed = [] {
    for (int number = 100; number < 150; ++number) {
      const auto address =
          boost::asio::ip::make_address("127." + std::to_string(number) + ".255.1");
      const boost::asio::ip::tcp::endpoint endpoint(address, 30690);
      const int claim = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      if (::bind(claim, endpoint.data(), sizeof(sockaddr_in)) == 0) return number;
      ::close(claim);
    }
    throw std::runtime_error("no network is free");
  }();
  return claimed;
}

/// 127.N.`net`.`host`
inline std::string address(int host, int net = 0) {
  return "127." + std::to_string(network()) + "." + std::to_string(net) + "." +
         std::to_string(host);
}

}  // namespace test
