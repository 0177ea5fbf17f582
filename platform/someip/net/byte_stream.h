/// A connected stream socket, TCP or Unix, with a bounded queue of bytes to send.
#pragma once

#include <array>
#include <boost/asio/generic/stream_protocol.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/someip/base/counters.h"
#include "platform/someip/base/deployment.h"
#include "platform/someip/base/workers.h"
#include "platform/someip/wire/message.h"

namespace someip {

/// Keeps child processes from inheriting the socket, and with it the address. Asio's sockets are
/// otherwise inherited.
void close_in_children(int descriptor);

/// Lives on the control thread, except enqueue().
class Byte_stream : public std::enable_shared_from_this<Byte_stream> {
 public:
  using Socket = boost::asio::generic::stream_protocol::socket;

  virtual ~Byte_stream() = default;
  Byte_stream(const Byte_stream&) = delete;
  Byte_stream& operator=(const Byte_stream&) = delete;

  void start() { receive(); }
  void close();
  /// Sends the queued messages, then the end of the stream, and receives nothing more. The end of
  /// the peer's stream is reported as a loss.
  void finish();

 protected:
  enum class End : std::uint8_t {
    finished,  ///< after finish()
    lost,      ///< by the peer or the network
    refused,   ///< by this side
  };

  /// The references outlive this object.
  Byte_stream(Socket socket, const Limits& limits, Workers& workers, Counters& counters);

  /// Queues whole messages and returns at once. A reader that is too slow loses the connection. Any
  /// thread.
  void enqueue(std::vector<std::byte> bytes);
  /// Ends the connection because of the peer's conduct.
  void refuse(const char* why) { fail(why, End::refused); }
  [[nodiscard]] bool is_open() const { return open_; }
  [[nodiscard]] int descriptor() { return socket_.native_handle(); }

  const Limits& limits_;
  Workers& workers_;
  Counters& counters_;

 private:
  /// Bytes have arrived.
  virtual void take(Bytes received) = 0;
  /// Called once when the connection has ended, and not after close().
  virtual void ended(const char* why, End end) = 0;

  void fail(const char* why, End end);
  void receive();
  void write();
  void end_stream();

  Socket socket_;
  std::array<std::byte, std::size_t{16} * 1024> buffer_;
  std::vector<std::vector<std::byte>> writing_;  ///< being written; used by the control thread only
  bool open_ = true;                             ///< used by the control thread only
  bool finishing_ = false;                       ///< used by the control thread only

  std::mutex mutex_;  ///< guards the members below
  std::vector<std::vector<std::byte>> queue_;
  std::size_t queued_bytes_ = 0;  ///< in queue_ and writing_
  bool busy_ = false;             ///< a write runs or is requested
  bool dead_ = false;             ///< no message is queued any longer
};

}  // namespace someip
