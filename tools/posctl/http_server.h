/// An HTTP server for one text that is made anew for each request, with bounds on all that a client
/// can cost.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace posctl {

struct Http_limits {
  std::size_t connections = 32;
  std::size_t request_bytes = 8192;
  std::chrono::milliseconds request_time{5000};   ///< from the connection to the whole request
  std::chrono::milliseconds response_time{5000};  ///< to take the whole response
  std::chrono::milliseconds page_life{250};       ///< a younger page answers further requests
};

struct Http_counts {
  std::uint64_t requests = 0;  ///< for the page
  std::uint64_t refused = 0;   ///< other requests, and those past a limit
};

/// Answers GET and HEAD of `path`, one request a connection. Past the bound of the connections, the
/// one that has waited longest for its request is closed in favour of the newcomer. So clients that
/// send slowly or nothing keep no other client out.
class Http_server {
 public:
  /// The text of the page. It is called in one thread of its own, and may take a while: requests
  /// that come meanwhile get the same text.
  using Page = std::function<std::string(const Http_counts& counts)>;

  /// Listens from now on. Throws boost::system::system_error.
  Http_server(const boost::asio::ip::tcp::endpoint& endpoint,
              std::string path,
              Page page,
              Http_limits limits = {});
  /// Waits for a call of `page` that runs.
  ~Http_server();
  Http_server(const Http_server&) = delete;
  Http_server& operator=(const Http_server&) = delete;

  /// With the port that the kernel has chosen, if it was to choose one.
  [[nodiscard]] boost::asio::ip::tcp::endpoint endpoint() const;

 private:
  class Implementation;
  const std::unique_ptr<Implementation> implementation_;
};

}  // namespace posctl
