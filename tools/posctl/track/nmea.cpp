#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/udp.hpp>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/http_server.h"
#include "tools/posctl/printer.h"
#include "tools/posctl/time_base.h"
#include "tools/posctl/track/live_positions.h"
#include "tools/posctl/track/sentence_server.h"
#include "tools/posctl/track/sentences.h"
#include "tools/stop_signal.h"

namespace posctl {
namespace {

namespace asio = boost::asio;
using Steady = std::chrono::steady_clock;

/// How often sentences say that there is no valid position.
constexpr std::chrono::seconds between{1};

/// The place that the sentences go to.
class Output {
 public:
  Output() = default;
  virtual ~Output() = default;
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  virtual void send(const std::string& text, int cancel) = 0;
  /// Would send() return at once?
  [[nodiscard]] virtual bool is_ready() const { return true; }
  /// For people, at the start and at the end; may be empty.
  [[nodiscard]] virtual std::string greeting() const { return {}; }
  [[nodiscard]] virtual std::string summary() const { return {}; }
};

class Standard_output final : public Output {
 public:
  void send(const std::string& text, int cancel) override { tools::write_output(text, cancel); }
  bool is_ready() const override {
    pollfd output{STDOUT_FILENO, POLLOUT, 0};
    return ::poll(&output, 1, 0) == 1;
  }
};

/// One datagram for the sentences of a position. Nobody need receive them.
class Udp_output final : public Output {
 public:
  explicit Udp_output(const asio::ip::udp::endpoint& receiver)
      : receiver_{receiver}, socket_{context_, receiver.protocol()} {
    socket_.non_blocking(true);
    socket_.set_option(asio::socket_base::broadcast(true));
  }
  void send(const std::string& text, int) override {
    boost::system::error_code ignored;
    socket_.send_to(asio::buffer(text), receiver_, 0, ignored);
  }

 private:
  const asio::ip::udp::endpoint receiver_;
  asio::io_context context_;
  asio::ip::udp::socket socket_;
};

class Tcp_output final : public Output {
 public:
  explicit Tcp_output(const asio::ip::tcp::endpoint& endpoint) : server_{endpoint} {}

  void send(const std::string& text, int) override { server_.send(text); }
  std::string greeting() const override { return "tcp://" + text_of(server_.endpoint()) + "\n"; }
  std::string summary() const override {
    const auto counts = server_.counts();
    std::string text = std::to_string(counts.clients) + " clients";
    if (counts.refused != 0) text += ", " + std::to_string(counts.refused) + " more refused";
    if (counts.lost != 0)
      text += ", slow ones lost the sentences of " + std::to_string(counts.lost) + " positions";
    return text + "\n";
  }

 private:
  track::Sentence_server server_;
};

[[noreturn]] void refuse(const std::string& listen) {
  throw tools::Usage_error("--listen " + listen +
                           ": tcp:[ADDRESS:]PORT, udp:HOST:PORT or - is expected");
}

/// "HOST:PORT"; an IPv6 address stands in brackets. The host may be missing.
std::pair<std::string, std::uint16_t> host_and_port(const std::string& text,
                                                    const std::string& listen) {
  const auto colon = text.rfind(':');
  std::string host = colon == std::string::npos ? "" : text.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) {
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string::npos) {
    refuse(listen);
  }
  std::uint16_t port = 0;
  const char* const begin = text.data() + (colon == std::string::npos ? 0 : colon + 1);
  const char* const end = text.data() + text.size();
  const auto [parsed, error] = std::from_chars(begin, end, port);
  if (error != std::errc{} || parsed != end) refuse(listen);
  return {host, port};
}

std::unique_ptr<Output> output_of(const std::string& listen) {
  if (listen == "-") return std::make_unique<Standard_output>();
  const bool is_tcp = listen.starts_with("tcp:");
  if (!is_tcp && !listen.starts_with("udp:")) refuse(listen);
  const auto [host, port] = host_and_port(listen.substr(4), listen);
  try {
    if (is_tcp) {
      boost::system::error_code wrong;
      const auto address = asio::ip::make_address(host.empty() ? "127.0.0.1" : host, wrong);
      if (wrong) refuse(listen);
      return std::make_unique<Tcp_output>(asio::ip::tcp::endpoint(address, port));
    }
    if (host.empty() || port == 0) refuse(listen);
    asio::io_context context;
    const auto found = asio::ip::udp::resolver(context).resolve(host, std::to_string(port));
    // A name of both kinds, such as localhost, is mostly served by IPv4 only.
    const auto is_v4 = [](const auto& one) { return one.endpoint().address().is_v4(); };
    const auto first = std::find_if(found.begin(), found.end(), is_v4);
    return std::make_unique<Udp_output>((first == found.end() ? found.begin() : first)->endpoint());
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error("--listen " + listen + ": " + error.code().message());
  }
}

/// Tells apart the positions that are valid now.
class Sender {
 public:
  Sender(Output& output, const Nmea_options& options)
      : printer{options.count},
        output_{output},
        max_age_{std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::duration<double>(options.max_age))} {}

  /// On the thread of the positions.
  void take(const Json& record) {
    const auto now = time_base_now();
    const auto point = track::point_of(record, ahead_);
    // Without a stamp the age is unknown, and so is the validity.
    if (!point || !point->utc || std::chrono::abs(now - ahead_ - *point->utc) > max_age_) return;
    last_valid_ = Steady::now();
    printer.print([&](int cancel) { output_.send(track::sentences_of(*point), cancel); });
  }
  /// On the thread that waits.
  void tick() {
    const auto now = Steady::now();
    if (now - last_valid_.load() < max_age_ || now - last_reported_ < between ||
        !output_.is_ready())
      return;
    last_reported_ = now;
    const auto utc = std::chrono::system_clock::now().time_since_epoch();
    printer.remark_at_once(
        [&](int cancel) { output_.send(track::sentences_without_position(utc), cancel); });
  }

  Printer printer;

 private:
  Output& output_;
  const std::chrono::nanoseconds max_age_;
  const std::chrono::nanoseconds ahead_ = time_base_ahead();
  std::atomic<Steady::time_point> last_valid_{Steady::now()};  ///< or the start
  Steady::time_point last_reported_ = Steady::now();  ///< the waiting thread's own; or the start
};

}  // namespace

int nmea(const Nmea_options& options) {
  tools::Stop_signal stop_signal;  // before the runtime has threads
  const auto output = output_of(options.listen);
  on_the_way(options.way, [&] {
    Sender sender(*output, options);
    tools::write_output(output->greeting(), stop_signal.descriptor());
    track::Live_positions positions(options.position,
                                    [&](const Json& record) { sender.take(record); });
    const bool timed_out =
        sender.printer.wait(stop_signal, options.timeout, [&] { sender.tick(); });
    positions.stop();
    sender.printer.check();
    tools::write_output(output->summary());
    if (timed_out)
      track::check_positions(positions, options.timeout, sender.printer.printed(), options.count);
  });
  return 0;
}

}  // namespace posctl
