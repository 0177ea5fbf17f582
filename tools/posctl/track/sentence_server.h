/// Sentences to programs that connect, with bounds on all that they can cost.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace posctl::track {

struct Server_limits {
  std::size_t clients = 16;
  std::size_t waiting_bytes =
      std::size_t{64} * 1024;  ///< for a client; past it the newest sentences are lost
};

struct Server_counts {
  std::uint64_t clients = 0;  ///< that have connected
  std::uint64_t refused = 0;  ///< past the limit
  std::uint64_t lost = 0;     ///< texts that a slow client did not get
};

/// A TCP server that sends every text to every client and reads nothing.
class Sentence_server {
 public:
  /// Listens from now on. Throws boost::system::system_error.
  explicit Sentence_server(const boost::asio::ip::tcp::endpoint& endpoint,
                           Server_limits limits = {});
  ~Sentence_server();
  Sentence_server(const Sentence_server&) = delete;
  Sentence_server& operator=(const Sentence_server&) = delete;

  /// Any thread; never waits for a client. A client gets whole texts only.
  void send(std::string text);

  [[nodiscard]] boost::asio::ip::tcp::endpoint endpoint() const;
  [[nodiscard]] Server_counts counts() const;

 private:
  class Implementation;
  const std::unique_ptr<Implementation> implementation_;
};

}  // namespace posctl::track
