#include "tools/posctl/track/sentence_server.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <deque>
#include <list>
#include <thread>
#include <utility>

namespace posctl::track {

namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using Text = std::shared_ptr<const std::string>;  // by all clients that still have to get it

}  // namespace

/// Everything happens in one thread.
class Sentence_server::Implementation {
 public:
  Implementation(const tcp::endpoint& endpoint, Server_limits limits)
      : limits_(limits), acceptor_(context_, endpoint), retry_(context_) {
    accept();
    thread_ = std::jthread([this] { context_.run(); });
  }
  ~Implementation() {
    context_.stop();
    thread_.join();
  }
  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;

  void send(std::string text);
  [[nodiscard]] tcp::endpoint endpoint() const { return acceptor_.local_endpoint(); }
  [[nodiscard]] Server_counts counts() const { return {connected_, refused_, lost_}; }

 private:
  class Client;

  void accept();

  const Server_limits limits_;
  std::atomic<std::uint64_t> connected_{0}, refused_{0}, lost_{0};
  asio::io_context context_{1};
  tcp::acceptor acceptor_;
  asio::steady_timer retry_;
  std::list<std::shared_ptr<Client>> clients_;
  std::jthread thread_;
};

class Sentence_server::Implementation::Client : public std::enable_shared_from_this<Client> {
 public:
  Client(Implementation& server, tcp::socket socket)
      : server_(server), socket_(std::move(socket)) {}

  void send(const Text& text) {
    if (waiting_bytes_ + text->size() > server_.limits_.waiting_bytes) {
      ++server_.lost_;
      return;
    }
    waiting_.push_back(text);
    waiting_bytes_ += text->size();
    if (waiting_.size() == 1) write();
  }
  /// Only to see that the client has gone.
  void read() {
    socket_.async_read_some(asio::buffer(ignored_),
                            [self = shared_from_this()](error_code error, std::size_t) {
                              if (error) return self->end();
                              self->read();
                            });
  }

 private:
  void write() {
    asio::async_write(socket_, asio::buffer(*waiting_.front()),
                      [self = shared_from_this()](error_code error, std::size_t) {
                        if (error) return self->end();
                        self->waiting_bytes_ -= self->waiting_.front()->size();
                        self->waiting_.pop_front();
                        if (!self->waiting_.empty()) self->write();
                      });
  }
  void end() {
    error_code ignored;
    socket_.close(ignored);
    std::erase(server_.clients_, shared_from_this());
  }

  Implementation& server_;
  tcp::socket socket_;
  std::deque<Text> waiting_;
  std::size_t waiting_bytes_ = 0;
  std::array<char, 512> ignored_{};
};

void Sentence_server::Implementation::send(std::string text) {
  asio::post(context_, [this, text = std::make_shared<const std::string>(std::move(text))] {
    for (const auto& client : clients_)
      client->send(text);
  });
}

void Sentence_server::Implementation::accept() {
  acceptor_.async_accept([this](error_code error, tcp::socket socket) {
    if (error) {
      // Such as too many open files: the client waits in the queue of the kernel.
      retry_.expires_after(std::chrono::milliseconds(100));
      retry_.async_wait([this](error_code) { accept(); });
      return;
    }
    if (clients_.size() < limits_.clients) {
      ++connected_;
      error_code ignored;  // then the kernel chooses
      socket.set_option(
          asio::socket_base::send_buffer_size(static_cast<int>(limits_.waiting_bytes)), ignored);
      clients_.push_back(std::make_shared<Client>(*this, std::move(socket)));
      clients_.back()->read();
    } else {
      ++refused_;
    }
    accept();
  });
}

Sentence_server::Sentence_server(const tcp::endpoint& endpoint, Server_limits limits)
    : implementation_(std::make_unique<Implementation>(endpoint, limits)) {}

Sentence_server::~Sentence_server() = default;

void Sentence_server::send(std::string text) {
  implementation_->send(std::move(text));
}

tcp::endpoint Sentence_server::endpoint() const {
  return implementation_->endpoint();
}

Server_counts Sentence_server::counts() const {
  return implementation_->counts();
}

}  // namespace posctl::track
