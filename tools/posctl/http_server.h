/// An HTTP server with bounds on all that a client can cost.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace posctl {

struct Http_limits {
  std::size_t connections = 32;
  std::size_t request_bytes = 8192;
  std::chrono::milliseconds request_time{5000};   ///< from the connection to the whole request
  std::chrono::milliseconds response_time{5000};  ///< to take the whole response
};

struct Http_counts {
  std::uint64_t requests = 0;  ///< that the handler has accepted
  std::uint64_t refused = 0;   ///< other requests, and those past a limit
};

using Http_message = boost::beast::http::request<boost::beast::http::empty_body>;

struct Http_request {
  const Http_message& message;
  boost::asio::ip::address local;  ///< the address of this machine that the client reached
  Http_counts counts;

  /// The target up to its query.
  [[nodiscard]] std::string_view path() const;
  /// Behind the question mark; empty without one.
  [[nodiscard]] std::string_view query() const;
};

struct Http_answer {
  boost::beast::http::status status = boost::beast::http::status::ok;
  std::string_view type = "text/plain";
  std::shared_ptr<const std::string> text;  ///< the body
  std::string_view fixed;                   ///< the body without `text`: it lives for ever
  std::vector<std::pair<std::string_view, std::string>> fields;  ///< further ones
  /// Takes the connection over instead of an answer.
  std::function<void(boost::beast::tcp_stream, Http_message)> take_over;

  [[nodiscard]] std::string_view body() const { return text ? std::string_view(*text) : fixed; }
};

/// An answer without a body of its own: its text is the name of the status.
[[nodiscard]] Http_answer refusal(boost::beast::http::status status);

/// Answers GET and HEAD, one request a connection. Past the bound of the connections, the one that
/// has waited longest for its request is closed in favour of the newcomer. So clients that send
/// slowly or nothing keep no other client out.
class Http_server {
  class Implementation;
  struct Gate;

 public:
  /// Gives an answer that the handler could not give at once. Any thread may call it, once; without
  /// effect when the connection or the server has gone.
  class Later {
   public:
    void operator()(Http_answer answer) const;

   private:
    friend class Implementation;
    std::shared_ptr<Gate> gate_;
    std::weak_ptr<void> connection_;
  };
  /// Runs in the server's thread. Returns nothing if it answers later.
  using Handler = std::function<std::optional<Http_answer>(const Http_request&, Later)>;

  /// Listens from now on. Throws boost::system::system_error.
  Http_server(const boost::asio::ip::tcp::endpoint& endpoint,
              Handler handler,
              Http_limits limits = {});
  ~Http_server();
  Http_server(const Http_server&) = delete;
  Http_server& operator=(const Http_server&) = delete;

  /// From now on nothing runs in the server's thread, which has ended. What was posted there and
  /// did not run is destroyed with the server.
  void stop();

  /// With the port that the kernel has chosen, if it was to choose one.
  [[nodiscard]] boost::asio::ip::tcp::endpoint endpoint() const;
  /// Of the server's only thread.
  [[nodiscard]] boost::asio::any_io_executor executor();

 private:
  const std::unique_ptr<Implementation> implementation_;
};

/// Of "127.0.0.1:9464" or "[::1]:9464". Throws tools::Usage_error that names --listen.
[[nodiscard]] boost::asio::ip::tcp::endpoint listen_endpoint(const std::string& text);
/// The same as text.
[[nodiscard]] std::string text_of(const boost::asio::ip::tcp::endpoint& endpoint);

}  // namespace posctl
