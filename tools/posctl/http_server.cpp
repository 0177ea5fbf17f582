#include "tools/posctl/http_server.h"

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <exception>
#include <list>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace posctl {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;
using boost::system::error_code;

}  // namespace

/// Everything except the page is made in one thread.
class Http_server::Implementation {
 public:
  Implementation(const tcp::endpoint& endpoint, std::string path, Page page, Http_limits limits)
      : limits_(limits),
        path_(std::move(path)),
        page_(std::move(page)),
        acceptor_(context_, endpoint),
        retry_(context_) {
    accept();
    thread_ = std::jthread([this] { context_.run(); });
  }
  ~Implementation() {
    context_.stop();
    thread_.join();
    maker_.join();
  }
  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;

  [[nodiscard]] tcp::endpoint endpoint() const { return acceptor_.local_endpoint(); }

 private:
  class Connection;

  void accept();
  void make_room();
  void make_page();
  void answer_waiting(std::string text, http::status status = http::status::ok);
  /// Answers now or when the page has been made.
  void ask_for_page(const std::shared_ptr<Connection>& connection);

  const Http_limits limits_;
  const std::string path_;
  const Page page_;
  Http_counts counts_;
  std::string text_;  ///< the last page
  std::optional<std::chrono::steady_clock::time_point> made_;
  asio::io_context context_{1};
  tcp::acceptor acceptor_;
  asio::steady_timer retry_;
  std::list<std::shared_ptr<Connection>> connections_;  ///< the oldest first
  std::vector<std::shared_ptr<Connection>> waiting_;    ///< for the page that is made
  asio::thread_pool maker_{1};
  std::jthread thread_;
};

class Http_server::Implementation::Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(Implementation& server, tcp::socket socket)
      : server_(server), stream_(std::move(socket)), buffer_(server.limits_.request_bytes) {
    parser_.header_limit(static_cast<std::uint32_t>(server.limits_.request_bytes));
    parser_.body_limit(std::uint64_t{0});
  }

  [[nodiscard]] bool reads() const { return reads_; }

  void read() {
    stream_.expires_after(server_.limits_.request_time);
    http::async_read(stream_, buffer_, parser_,
                     [self = shared_from_this()](error_code error, std::size_t) {
                       self->reads_ = false;
                       self->handle(error);
                     });
  }
  void close() {
    error_code ignored;
    stream_.socket().close(ignored);
  }
  void respond(http::status status, const std::string& text, std::string_view type) {
    response_.version(11);
    response_.result(status);
    response_.set(http::field::content_type, type);
    if (status == http::status::method_not_allowed) response_.set(http::field::allow, "GET, HEAD");
    response_.keep_alive(false);
    response_.content_length(text.size());
    if (parser_.is_header_done() && parser_.get().method() == http::verb::head) {
      serializer_.split(true);
    } else {
      response_.body() = text;
    }
    stream_.expires_after(server_.limits_.response_time);
    const auto finish = [self = shared_from_this()](error_code, std::size_t) {
      error_code ignored;
      self->stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
      self->end();
    };
    if (serializer_.split()) {
      http::async_write_header(stream_, serializer_, finish);
    } else {
      http::async_write(stream_, serializer_, finish);
    }
  }

 private:
  void handle(error_code code) {
    using http::error;
    const auto refuse = [this](http::status status) {
      ++server_.counts_.refused;
      respond(status, std::string(http::obsolete_reason(status)) + "\n", "text/plain");
    };
    if (code == error::header_limit || code == error::buffer_overflow) {
      refuse(http::status::request_header_fields_too_large);
    } else if (code == error::body_limit) {
      refuse(http::status::payload_too_large);
    } else if (code.category() == http::make_error_code(error::bad_method).category() &&
               code != error::end_of_stream && code != error::partial_message) {
      refuse(http::status::bad_request);
    } else if (code) {
      ++server_.counts_.refused;
      end();
    } else if (parser_.get().method() != http::verb::get &&
               parser_.get().method() != http::verb::head) {
      refuse(http::status::method_not_allowed);
    } else if (path() != server_.path_) {
      refuse(http::status::not_found);
    } else {
      server_.ask_for_page(shared_from_this());
    }
  }
  /// The target without its query.
  [[nodiscard]] std::string_view path() const {
    const auto target = parser_.get().target();
    const std::string_view text(target.data(), target.size());
    return text.substr(0, text.find('?'));
  }
  void end() { std::erase(server_.connections_, shared_from_this()); }

  Implementation& server_;
  beast::tcp_stream stream_;
  beast::flat_buffer buffer_;
  http::request_parser<http::empty_body> parser_;
  http::response<http::string_body> response_;
  http::response_serializer<http::string_body> serializer_{response_};
  bool reads_ = true;  ///< the whole request has not come yet
};

void Http_server::Implementation::accept() {
  acceptor_.async_accept([this](error_code error, tcp::socket socket) {
    if (error) {
      // Such as too many open files: the client waits in the queue of the kernel.
      retry_.expires_after(std::chrono::milliseconds(100));
      retry_.async_wait([this](error_code) { accept(); });
      return;
    }
    if (connections_.size() >= limits_.connections) make_room();
    if (connections_.size() < limits_.connections) {
      connections_.push_back(std::make_shared<Connection>(*this, std::move(socket)));
      connections_.back()->read();
    } else {
      ++counts_.refused;
    }
    accept();
  });
}

void Http_server::Implementation::make_room() {
  const auto slowest =
      std::ranges::find_if(connections_, [](const auto& one) { return one->reads(); });
  if (slowest == connections_.end()) return;
  (*slowest)->close();  // its read ends with an error, and counts it
  connections_.erase(slowest);
}

void Http_server::Implementation::ask_for_page(const std::shared_ptr<Connection>& connection) {
  ++counts_.requests;
  waiting_.push_back(connection);
  if (made_ && std::chrono::steady_clock::now() - *made_ < limits_.page_life) {
    answer_waiting(std::move(text_));
  } else if (waiting_.size() == 1) {
    make_page();
  }
}

void Http_server::Implementation::make_page() {
  asio::post(maker_, [this, counts = counts_] {
    std::string text;
    auto status = http::status::ok;
    try {
      text = page_(counts);
    } catch (const std::exception& error) {
      status = http::status::internal_server_error;
      text = error.what() + std::string("\n");
    }
    asio::post(context_, [this, status, text = std::move(text)]() mutable {
      if (status == http::status::ok) made_ = std::chrono::steady_clock::now();
      answer_waiting(std::move(text), status);
    });
  });
}

void Http_server::Implementation::answer_waiting(std::string text, http::status status) {
  text_ = std::move(text);
  for (const auto& connection : std::exchange(waiting_, {}))
    connection->respond(status, text_, "text/plain; version=0.0.4; charset=utf-8");
}

Http_server::Http_server(const tcp::endpoint& endpoint,
                         std::string path,
                         Page page,
                         Http_limits limits)
    : implementation_(
          std::make_unique<Implementation>(endpoint, std::move(path), std::move(page), limits)) {}

Http_server::~Http_server() = default;

tcp::endpoint Http_server::endpoint() const {
  return implementation_->endpoint();
}

}  // namespace posctl
