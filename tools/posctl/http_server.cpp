#include "tools/posctl/http_server.h"

#include <fcntl.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <charconv>
#include <list>
#include <mutex>
#include <system_error>
#include <thread>

#include "tools/command.h"

namespace posctl {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;
using boost::system::error_code;

/// A browser that posctl starts would otherwise keep the port. Asio's sockets are inherited.
void close_in_children(int descriptor) {
  static_cast<void>(::fcntl(descriptor, F_SETFD, FD_CLOEXEC));
}

std::string_view target_of(const Http_message& message) {
  return {message.target().data(), message.target().size()};
}

}  // namespace

std::string_view Http_request::path() const {
  const auto target = target_of(message);
  return target.substr(0, target.find('?'));
}

std::string_view Http_request::query() const {
  const auto target = target_of(message);
  const auto mark = target.find('?');
  return mark == std::string_view::npos ? std::string_view{} : target.substr(mark + 1);
}

Http_answer refusal(http::status status) {
  Http_answer answer;
  answer.status = status;
  answer.text = std::make_shared<std::string>(std::string(http::obsolete_reason(status)) + "\n");
  return answer;
}

/// What late answers may still use.
struct Http_server::Gate {
  std::mutex mutex;  ///< guards the member below
  asio::io_context* context = nullptr;
};

/// Everything runs in one thread.
class Http_server::Implementation {
 public:
  Implementation(const tcp::endpoint& endpoint, Handler handler, Http_limits limits)
      : limits_(limits),
        handler_(std::move(handler)),
        acceptor_(context_, endpoint),
        retry_(context_) {
    close_in_children(acceptor_.native_handle());
    gate_->context = &context_;
    accept();
    thread_ = std::jthread([this] { context_.run(); });
  }
  ~Implementation() { stop(); }
  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;

  void stop() {
    {
      const std::lock_guard lock(gate_->mutex);
      gate_->context = nullptr;
    }
    context_.stop();
    if (thread_.joinable()) thread_.join();
  }
  [[nodiscard]] tcp::endpoint endpoint() const { return acceptor_.local_endpoint(); }
  [[nodiscard]] asio::any_io_executor executor() { return context_.get_executor(); }

  class Connection;

 private:
  void accept();
  void make_room();

  const Http_limits limits_;
  const Handler handler_;
  const std::shared_ptr<Gate> gate_ = std::make_shared<Gate>();
  Http_counts counts_;
  asio::io_context context_{1};
  tcp::acceptor acceptor_;
  asio::steady_timer retry_;
  std::list<std::shared_ptr<Connection>> connections_;  ///< the oldest first
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
  void respond(Http_answer answer) {
    if (answer.status == http::status::ok || answer.take_over) {
      ++server_.counts_.requests;
    } else if (http::to_status_class(answer.status) != http::status_class::redirection) {
      ++server_.counts_.refused;
    }
    if (answer.take_over) {
      answer.take_over(std::move(stream_), parser_.release());
      end();
      return;
    }
    answer_ = std::move(answer);
    response_.version(11);
    response_.result(answer_.status);
    response_.set(http::field::content_type,
                  beast::string_view(answer_.type.data(), answer_.type.size()));
    for (const auto& [name, value] : answer_.fields)
      response_.set(beast::string_view(name.data(), name.size()), value);
    response_.keep_alive(false);
    const std::string_view body = answer_.body();
    response_.content_length(body.size());
    if (parser_.is_header_done() && parser_.get().method() == http::verb::head) {
      serializer_.split(true);
    } else {
      response_.body() = {body.data(), body.size()};
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
    if (code == error::header_limit || code == error::buffer_overflow) {
      respond(refusal(http::status::request_header_fields_too_large));
    } else if (code == error::body_limit) {
      respond(refusal(http::status::payload_too_large));
    } else if (code.category() == http::make_error_code(error::bad_method).category() &&
               code != error::end_of_stream && code != error::partial_message) {
      respond(refusal(http::status::bad_request));
    } else if (code) {
      ++server_.counts_.refused;
      end();
    } else if (parser_.get().method() != http::verb::get &&
               parser_.get().method() != http::verb::head) {
      auto answer = refusal(http::status::method_not_allowed);
      answer.fields.emplace_back("Allow", "GET, HEAD");
      respond(std::move(answer));
    } else {
      ask();
    }
  }
  void ask() {
    error_code error;
    const auto local = stream_.socket().local_endpoint(error);
    if (error) return end();  // the client has gone
    Later later;
    later.gate_ = server_.gate_;
    later.connection_ = weak_from_this();
    auto answer =
        server_.handler_({parser_.get(), local.address(), server_.counts_}, std::move(later));
    if (answer) respond(std::move(*answer));
  }
  void end() { std::erase(server_.connections_, shared_from_this()); }

  Implementation& server_;
  beast::tcp_stream stream_;
  beast::flat_buffer buffer_;
  http::request_parser<http::empty_body> parser_;
  Http_answer answer_;
  http::response<http::span_body<const char>> response_;
  http::response_serializer<http::span_body<const char>> serializer_{response_};
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
    close_in_children(socket.native_handle());
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

void Http_server::Later::operator()(Http_answer answer) const {
  const std::lock_guard lock(gate_->mutex);
  if (gate_->context == nullptr) return;
  asio::post(*gate_->context, [connection = connection_, answer = std::move(answer)]() mutable {
    if (const auto one = std::static_pointer_cast<Implementation::Connection>(connection.lock()))
      one->respond(std::move(answer));
  });
}

Http_server::Http_server(const tcp::endpoint& endpoint, Handler handler, Http_limits limits)
    : implementation_(std::make_unique<Implementation>(endpoint, std::move(handler), limits)) {}

Http_server::~Http_server() = default;

void Http_server::stop() {
  implementation_->stop();
}

tcp::endpoint Http_server::endpoint() const {
  return implementation_->endpoint();
}

asio::any_io_executor Http_server::executor() {
  return implementation_->executor();
}

tcp::endpoint listen_endpoint(const std::string& text) {
  const auto colon = text.rfind(':');
  const bool bracketed = text.starts_with('[') && colon != 0 && text[colon - 1] == ']';
  error_code error;
  std::uint16_t port = 0;
  if (colon != std::string::npos) {
    const auto address = asio::ip::make_address(
        bracketed ? text.substr(1, colon - 2) : text.substr(0, colon), error);
    const auto* const end = text.data() + text.size();
    const auto [parsed, wrong] = std::from_chars(text.data() + colon + 1, end, port);
    if (!error && wrong == std::errc{} && parsed == end && address.is_v6() == bracketed)
      return {address, port};
  }
  throw tools::Usage_error("--listen " + text +
                           ": an IP address and a port such as 127.0.0.1:9464 are expected");
}

std::string text_of(const tcp::endpoint& endpoint) {
  const std::string address = endpoint.address().to_string();
  return (endpoint.address().is_v6() ? "[" + address + "]" : address) + ":" +
         std::to_string(endpoint.port());
}

}  // namespace posctl
