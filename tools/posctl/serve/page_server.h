/// The server of the page: its files, and its data over a WebSocket.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "tools/posctl/http_server.h"
#include "tools/posctl/serve/action.h"
#include "tools/posctl/serve/page_feed.h"

namespace posctl::serve {

struct Page_limits {
  Http_limits http{.connections = 64};
  std::size_t clients = 16;                            ///< WebSockets; further ones are refused
  std::size_t waiting_bytes = std::size_t{512} << 10;  ///< for one client, beside the history
  std::size_t message_bytes = 4096;                    ///< of a client
  unsigned messages_per_second = 20;                   ///< of a client; more end its connection
  std::chrono::seconds idle{20};                       ///< without a sign of life of the browser
  std::size_t client_actions = 4;  ///< of a client, under way; further ones are refused
  std::size_t actions = 16;        ///< of all clients
};

struct Page_options {
  std::string token;                         ///< empty: none is needed
  std::shared_ptr<const std::string> marks;  ///< as JSON; null: there are none
  Actor* actor = nullptr;                    ///< null: actions are refused. It outlives the server
};

/// Serves from its construction to its destruction.
class Page_server {
 public:
  /// `feed` outlives the server. Throws boost::system::system_error.
  Page_server(const boost::asio::ip::tcp::endpoint& endpoint,
              Page_feed& feed,
              Page_options options,
              Page_limits limits = {});
  /// Waits for an action that runs.
  ~Page_server();
  Page_server(const Page_server&) = delete;
  Page_server& operator=(const Page_server&) = delete;

  [[nodiscard]] boost::asio::ip::tcp::endpoint endpoint() const;

 private:
  class Implementation;
  const std::unique_ptr<Implementation> implementation_;
};

}  // namespace posctl::serve
