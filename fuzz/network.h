/// A network inside the process: the linker sends the socket calls of the platform here (the list
/// is in CMakeLists.txt), so that nothing leaves the process, peers have any address, and time
/// passes when the target says so.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "fuzz/input.h"
#include "platform/someip/base/endpoint.h"

namespace fuzz {

class Network {
 public:
  struct Datagram {
    someip::Endpoint from, to;
    std::vector<std::byte> bytes;
  };

  static Network& instance();

  /// As after the start of the process. Every socket must have been closed.
  void reset();
  void pass(std::chrono::nanoseconds time) { now_ += time; }
  [[nodiscard]] std::chrono::steady_clock::time_point now() const { return now_; }

  /// False when no socket is bound to `to`.
  bool deliver(Bytes datagram, const someip::Endpoint& from, const someip::Endpoint& to);
  /// What the platform has sent since the last call.
  [[nodiscard]] std::vector<Datagram> take_sent();
  /// Datagrams cannot be sent, with this errno; 0: they can.
  void fail_sending(int error) { send_error_ = error; }

  /// Do peers accept connections?
  void accept_connections(bool accept) { accept_ = accept; }
  /// A peer connects; false when nobody listens.
  bool connect(const someip::Endpoint& from, const someip::Endpoint& to);
  /// The connections that stand, whoever opened them.
  [[nodiscard]] std::size_t connections() const;
  /// A peer sends on the nth connection, or ends it.
  void send(std::size_t connection, Bytes bytes);
  void end(std::size_t connection);
  /// Peers read what the platform has written.
  void read_all();

  // The calls of the platform; errors as those of the system: -1 and errno.
  int socket(int type);
  int bind(int descriptor, const someip::Endpoint& local);
  int listen(int descriptor);
  int accept(int descriptor, someip::Endpoint& peer);
  int connect(int descriptor, const someip::Endpoint& peer);
  [[nodiscard]] bool owns(int descriptor) const;
  [[nodiscard]] bool datagrams(int descriptor) const;
  [[nodiscard]] someip::Endpoint local(int descriptor) const;
  [[nodiscard]] std::optional<someip::Endpoint> peer(int descriptor) const;
  void reuse_address(int descriptor);
  std::ptrdiff_t receive(int descriptor, std::vector<std::byte>& bytes, someip::Endpoint& from);
  std::ptrdiff_t send(int descriptor, Datagram datagram);
  /// The end of `descriptor`, which the caller closes.
  void close(int descriptor);

 private:
  struct Socket {
    int other_end = -1;  ///< what the peers hold: makes the descriptor readable
    bool stream = false, listening = false, reuse = false;
    someip::Endpoint local;
    std::optional<someip::Endpoint> peer;
    std::deque<Datagram> arrived;             ///< of a datagram socket
    std::deque<someip::Endpoint> connecting;  ///< of a listening one
  };
  [[nodiscard]] std::map<int, Socket>::iterator connection(std::size_t number);
  int add(bool stream);

  mutable std::mutex mutex_;  ///< guards the sockets: nodes stop on a thread of their own
  std::map<int, Socket> sockets_;
  std::vector<Datagram> sent_;
  std::uint16_t next_port_ = 0;
  int send_error_ = 0;
  bool accept_ = true;
  std::chrono::steady_clock::time_point now_{};
};

}  // namespace fuzz
