#include "tools/posctl/serve/page_server.h"

#include <atomic>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <deque>
#include <exception>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "tools/posctl/serve/guard.h"
#include "tools/posctl/serve/page_content.h"

namespace posctl::serve {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using asio::ip::tcp;
using boost::system::error_code;

/// The kernel keeps no more than this for a client that does not read.
constexpr int socket_buffer = 64 * 1024;

}  // namespace

/// Everything but actions runs in the thread of the HTTP server.
class Page_server::Implementation {
 public:
  Implementation(const tcp::endpoint& endpoint,
                 Page_feed& feed,
                 Page_options options,
                 Page_limits limits)
      : feed_(feed),
        options_(std::move(options)),
        limits_(limits),
        content_(options_.token),
        server_(
            endpoint,
            [this](const Http_request& request, const Http_server::Later&) {
              return std::optional(answer(request));
            },
            limits.http) {
    feed_.listen([this](std::uint64_t number, const Page_feed::Text& text) {
      asio::post(server_.executor(), [this, number, text] { broadcast(number, text); });
    });
  }
  ~Implementation() {
    ending_ = true;
    feed_.listen({});
    server_.stop();
    actions_.join();
    clients_.clear();
    feed_.set_clients(0);
  }
  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;

  [[nodiscard]] tcp::endpoint endpoint() const { return server_.endpoint(); }

 private:
  class Client;

  Http_answer answer(const Http_request& request);
  Http_answer answer_path(const Http_request& request);
  Http_answer accept_client(const Http_request& request);
  /// Takes a place among the actions under way. Throws std::runtime_error without one. `own` is the
  /// client's number of them.
  void admit(std::size_t own);
  /// The data of the answer. Runs in the thread of the actions.
  [[nodiscard]] Json act(const Action& action) const;
  void broadcast(std::uint64_t number, const Page_feed::Text& text);
  void remove(const std::shared_ptr<Client>& client) {
    clients_.erase(client);
    feed_.set_clients(clients_.size());
  }

  Page_feed& feed_;
  const Page_options options_;
  const Page_limits limits_;
  const Page_content content_;
  std::set<std::shared_ptr<Client>> clients_;
  std::size_t actions_under_way_ = 0;
  std::atomic<bool> ending_{false};  ///< actions that wait are dropped
  asio::thread_pool actions_{1};
  Http_server server_;
};

/// A browser that has opened the feed.
class Page_server::Implementation::Client : public std::enable_shared_from_this<Client> {
 public:
  Client(Implementation& server, beast::tcp_stream stream, Http_message request)
      : server_(server), socket_(std::move(stream)), request_(std::move(request)) {
    buffer_.max_size(server.limits_.message_bytes);
    error_code ignored;
    beast::get_lowest_layer(socket_).socket().set_option(
        asio::socket_base::send_buffer_size(socket_buffer), ignored);
    beast::get_lowest_layer(socket_).socket().set_option(tcp::no_delay(true), ignored);
    beast::get_lowest_layer(socket_).expires_never();  // the WebSocket has a time-out of its own
  }

  void start() {
    auto timeout = websocket::stream_base::timeout::suggested(beast::role_type::server);
    timeout.handshake_timeout = server_.limits_.http.request_time;
    timeout.idle_timeout = server_.limits_.idle;
    timeout.keep_alive_pings = true;
    socket_.set_option(timeout);
    socket_.read_message_max(server_.limits_.message_bytes);
    socket_.async_accept(request_, [self = shared_from_this()](error_code error) {
      if (error) return self->end();
      self->open_ = true;
      self->request_ = {};
      self->socket_.text(true);
      self->socket_.auto_fragment(false);
      self->send_all(self->server_.feed_.all());
      self->read();
    });
  }
  void send(std::uint64_t number, const Page_feed::Text& text) {
    if (!open_ || number <= contained_) return;
    // A frame above the bound leaves alone: only a write ends the loss.
    const bool fits =
        waiting_.empty() || waiting_bytes_ + text->size() <= server_.limits_.waiting_bytes;
    if (lost_ != 0 || !fits) {
      ++lost_;
      return;
    }
    waiting_bytes_ += text->size();
    push({text, text->size()});
  }

 private:
  struct Waiting {
    Page_feed::Text text;
    std::size_t counted;  ///< its part of waiting_bytes_: a snapshot has none
  };

  void send_all(Page_feed::Snapshot snapshot) {
    contained_ = snapshot.number;
    for (auto& text : snapshot.frames)
      push({std::move(text), 0});
  }
  void push(Waiting waiting) {
    waiting_.push_back(std::move(waiting));
    if (waiting_.size() == 1) write();
  }
  void write() {
    socket_.async_write(asio::buffer(*waiting_.front().text),
                        [self = shared_from_this()](error_code error, std::size_t) {
                          if (error) return self->end();
                          self->waiting_bytes_ -= self->waiting_.front().counted;
                          self->waiting_.pop_front();
                          self->catch_up();
                          if (!self->waiting_.empty()) self->write();
                        });
  }
  /// Tells a client that reads again what it has lost, and what holds now.
  void catch_up() {
    if (lost_ == 0 || !waiting_.empty()) return;
    auto snapshot = server_.feed_.states();
    snapshot.frames.insert(snapshot.frames.begin(),
                           std::make_shared<const std::string>(frame(
                               Topic::lost, seconds_since_1970() * 1000, {{"frames", lost_}})));
    lost_ = 0;
    contained_ = snapshot.number;
    for (auto& text : snapshot.frames)
      waiting_.push_back({std::move(text), 0});
  }

  void read() {
    socket_.async_read(buffer_, [self = shared_from_this()](error_code error, std::size_t) {
      if (error) return self->end();
      self->take();
    });
  }
  void take() {
    const auto now = std::chrono::steady_clock::now();
    if (now - second_ >= std::chrono::seconds(1)) {
      second_ = now;
      messages_ = 0;
    }
    if (!socket_.got_text() || ++messages_ > server_.limits_.messages_per_second) {
      close(websocket::close_code::policy_error);
      return;
    }
    const std::string text = beast::buffers_to_string(buffer_.data());
    buffer_.consume(buffer_.size());
    begin(text);
    // Also while an action runs: the answers to pings are the browser's sign of life.
    if (!ended_) read();
  }
  void begin(std::string_view text) {
    Json refusal{{"id", 0}, {"ok", false}};
    try {
      const Action action = action_of(text);
      refusal["id"] = action.id;
      server_.admit(actions_under_way_);
      ++actions_under_way_;
      asio::post(server_.actions_, [self = shared_from_this(), action] {
        const Json answer = self->server_.act(action);
        asio::post(self->server_.server_.executor(), [self, answer] {
          --self->server_.actions_under_way_;
          --self->actions_under_way_;
          self->tell(answer);
        });
      });
    } catch (const std::exception& error) {
      refusal["text"] = error.what();
      tell(refusal);
    }
  }
  void tell(const Json& answer) {
    if (ended_) return;
    auto line = std::make_shared<const std::string>(
        frame(Topic::answer, seconds_since_1970() * 1000, answer));
    // Frames stop at the bound; a browser that asks and does not read its answers is ended.
    const std::size_t size = line->size();
    if (waiting_bytes_ + size > 2 * server_.limits_.waiting_bytes) return end();
    waiting_bytes_ += size;
    push({std::move(line), size});
  }
  void close(websocket::close_code code) {
    socket_.async_close(code, [self = shared_from_this()](error_code) { self->end(); });
  }
  void end() {
    if (std::exchange(ended_, true)) return;
    error_code ignored;
    beast::get_lowest_layer(socket_).socket().close(ignored);
    server_.remove(shared_from_this());
  }

  Implementation& server_;
  websocket::stream<beast::tcp_stream> socket_;
  Http_message request_;
  beast::flat_buffer buffer_;
  std::deque<Waiting> waiting_;  ///< the first one is being written
  std::size_t waiting_bytes_ = 0;
  std::uint64_t contained_ = 0;  ///< frames up to this one are in the snapshot
  std::uint64_t lost_ = 0;       ///< frames since the queue was full
  std::chrono::steady_clock::time_point second_;
  unsigned messages_ = 0;  ///< since second_
  std::size_t actions_under_way_ = 0;
  bool open_ = false;  ///< the handshake is done
  bool ended_ = false;
};

Http_answer Page_server::Implementation::answer(const Http_request& request) {
  const auto status = refusal_of(request, options_.token);
  auto answer = status ? refusal(*status) : answer_path(request);
  if (status == http::status::unauthorized)
    answer.fields.emplace_back("WWW-Authenticate", "Bearer");
  if (!answer.take_over) add_security_fields(answer, request);
  return answer;
}

Http_answer Page_server::Implementation::answer_path(const Http_request& request) {
  const auto path = request.path();
  if (path == "/feed") return accept_client(request);
  if (path == "/marks.json" && options_.marks) {
    Http_answer answer;
    answer.type = "application/json";
    answer.text = options_.marks;
    return answer;
  }
  if (auto answer = content_.answer(request)) return std::move(*answer);
  return refusal(http::status::not_found);
}

Http_answer Page_server::Implementation::accept_client(const Http_request& request) {
  if (!websocket::is_upgrade(request.message)) return refusal(http::status::upgrade_required);
  if (clients_.size() >= limits_.clients) return refusal(http::status::service_unavailable);
  Http_answer answer;
  answer.take_over = [this](beast::tcp_stream stream, Http_message message) {
    const auto client = std::make_shared<Client>(*this, std::move(stream), std::move(message));
    clients_.insert(client);
    feed_.set_clients(clients_.size());
    client->start();
  };
  return answer;
}

void Page_server::Implementation::broadcast(std::uint64_t number, const Page_feed::Text& text) {
  for (const auto& client : clients_)
    client->send(number, text);
}

void Page_server::Implementation::admit(std::size_t own) {
  if (options_.actor == nullptr)
    throw std::runtime_error("this page only looks: posctl serve --control lets it act");
  if (own >= limits_.client_actions || actions_under_way_ >= limits_.actions)
    throw std::runtime_error("other actions are under way: try again when they have their answers");
  ++actions_under_way_;
}

Json Page_server::Implementation::act(const Action& action) const {
  Json answer{{"id", action.id}, {"ok", false}};
  try {
    if (ending_) throw std::runtime_error("the server ends");
    answer["text"] = options_.actor->act(action);
    answer["ok"] = true;
  } catch (const std::exception& error) {
    answer["text"] = error.what();
  }
  return answer;
}

Page_server::Page_server(const tcp::endpoint& endpoint,
                         Page_feed& feed,
                         Page_options options,
                         Page_limits limits)
    : implementation_(
          std::make_unique<Implementation>(endpoint, feed, std::move(options), limits)) {}

Page_server::~Page_server() = default;

tcp::endpoint Page_server::endpoint() const {
  return implementation_->endpoint();
}

}  // namespace posctl::serve
