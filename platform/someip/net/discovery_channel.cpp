#include "platform/someip/net/discovery_channel.h"

#include <boost/asio/error.hpp>
#include <span>
#include <string>
#include <system_error>
#include <utility>

namespace someip {

namespace {
constexpr std::chrono::seconds rejoin_period{1};
constexpr std::size_t max_datagram = 65536;
/// After this many datagrams, timers get their turn.
constexpr int datagrams_per_turn = 64;
}  // namespace

Discovery_channel::Socket::Socket(boost::asio::io_context& control, const Address& like)
    : udp(like), events(control, udp.duplicate()) {}

Discovery_channel::Discovery_channel(boost::asio::io_context& control,
                                     const Discovery_timing& timing,
                                     const Address& own,
                                     Counters& counters,
                                     Log& log,
                                     Receive receive)
    : group_{timing.multicast_address, timing.port},
      own_(own),
      counters_(counters),
      log_(log),
      receive_(std::move(receive)),
      multicast_(control, own),
      unicast_(control, own),
      rejoin_(control),
      buffer_(max_datagram) {
  allow_missing_address(unicast_.udp.descriptor());
  if (const auto error = unicast_.udp.bind({own, timing.port})) {
    throw std::system_error(error, "cannot bind " + to_string(Endpoint{own, timing.port}));
  }
  multicast_.udp.reuse_address();
  if (const auto error = multicast_.udp.bind(group_)) {
    throw std::system_error(error, "cannot bind " + to_string(group_));
  }
}

void Discovery_channel::start() {
  wait(multicast_, true);
  wait(unicast_, false);
}

void Discovery_channel::stop() {
  stopped_ = true;
  link_up_ = false;
  rejoin_.cancel();
  boost::system::error_code ignored;
  multicast_.events.close(ignored);
  unicast_.events.close(ignored);
}

void Discovery_channel::link_changed(bool up) {
  link_up_ = up;
  rejoin_.cancel();
  // If a membership outlives its link, the kernel does not announce the next one to the network.
  multicast_.udp.leave(group_.address, own_);
  if (up) join();
}

void Discovery_channel::join() {
  const auto error = multicast_.udp.join(group_.address, own_);
  const bool joined = !error || error == std::errc::address_in_use;
  const auto sender_error = joined ? unicast_.udp.multicast_from(own_) : std::error_code{};
  if (!joined || sender_error) {
    log_.limited(Log_level::warning, "join",
                 "cannot join " + group_.address.to_string() + " on " + own_.to_string() +
                     " yet: " + (joined ? sender_error : error).message());
  }
  rejoin_.expires_after(rejoin_period);
  rejoin_.async_wait([this](const boost::system::error_code& cancelled) {
    if (!cancelled && link_up_) join();
  });
}

void Discovery_channel::wait(Socket& socket, bool multicast) {
  socket.events.async_wait(boost::asio::posix::descriptor_base::wait_read,
                           [this, &socket, multicast](const boost::system::error_code& error) {
                             if (stopped_ || error == boost::asio::error::operation_aborted) return;
                             drain(socket, multicast);
                             if (!stopped_) wait(socket, multicast);
                           });
}

void Discovery_channel::drain(Socket& socket, bool multicast) {
  for (int i = 0; i < datagrams_per_turn && !stopped_; ++i) {
    Udp_socket::Arrival arrival;
    arrival.begin = buffer_;
    if (socket.udp.receive(std::span(&arrival, 1)) == 0) return;
    counters_.datagrams_received.add();
    const Endpoint sender = arrival.from.endpoint();
    if (sender.address == own_) continue;            // our own multicast, looped back
    if (is_local_address(sender.address)) continue;  // forged: these have a Unix socket
    receive_(Bytes(buffer_.data(), arrival.size), sender, multicast);
  }
}

void Discovery_channel::send(const std::vector<std::byte>& message,
                             const std::optional<Endpoint>& to) {
  const Endpoint destination = to.value_or(group_);
  if (const auto error = unicast_.udp.send(message, Socket_address(destination))) {
    counters_.send_failed.add();
    log_.limited(
        Log_level::warning, "discovery",
        "cannot send service discovery to " + to_string(destination) + ": " + error.message());
    return;
  }
  counters_.datagrams_sent.add();
}

}  // namespace someip
