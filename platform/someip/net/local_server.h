/// The Unix socket of a node and the connections of clients on its machine.
#pragma once

#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/someip/base/log.h"
#include "platform/someip/net/local_connection.h"
#include "platform/someip/net/local_path.h"

namespace someip {

/// Accepts clients of the same machine; owner, group and mode of the file decide which. Lives on
/// the control thread, except its constructor.
class Local_server final : public std::enable_shared_from_this<Local_server>,
                           private Local_connection::Handler {
 public:
  /// Called on the control thread, from start() to close().
  struct Events {
    std::function<void(const Local_frame& frame, const std::shared_ptr<Local_connection>& client)>
        received;
    std::function<void(const Endpoint& client)> lost;
  };

  /// Listens at `path`. Gives clients IPv4 addresses if `v4`. Throws std::runtime_error when that
  /// is impossible.
  Local_server(const std::string& path,
               bool v4,
               const Limits& limits,
               Workers& workers,
               Counters& counters,
               Log& log,
               Events events);

  void start() { accept(); }
  void close();

  /// Returns null if no open connection has this address.
  [[nodiscard]] std::shared_ptr<Local_connection> connection_of(const Address& client) const;
  void send_discovery_to_all(Bytes message) const;

 private:
  void accept();
  void add(boost::asio::local::stream_protocol::socket socket);
  [[nodiscard]] Endpoint next_client();
  void received(const Local_frame& frame,
                const std::shared_ptr<Local_connection>& connection) override;
  void lost(const std::shared_ptr<Local_connection>& connection, const char* refused) override;

  const Local_path path_;
  const bool v4_;
  const Limits& limits_;
  Workers& workers_;
  Counters& counters_;
  Log& log_;
  const Events events_;
  boost::asio::local::stream_protocol::acceptor acceptor_;
  boost::asio::steady_timer retry_;
  std::vector<std::shared_ptr<Local_connection>> connections_;
  std::uint32_t last_client_ = 0;
};

}  // namespace someip
