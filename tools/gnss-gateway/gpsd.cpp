#include "tools/gnss-gateway/gpsd.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "tools/gnss-gateway/say.h"

namespace gateway {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

using Addresses = std::vector<Gpsd_connection::Address>;

constexpr auto attempt_time = 900ms;
constexpr auto attempt_interval = 300ms;
constexpr auto resolution_look = 20ms;
/// A receiver that is away shows itself at this rate.
constexpr auto absence_interval = 1s;
/// Silence after which a receiver counts as away; longer for a slow receiver.
constexpr auto min_patience = 3s;
constexpr int intervals_of_patience = 3;
constexpr auto max_patience = 60s;
constexpr auto device_look = 200ms;
/// gpsd sleeps on the dead descriptor of a device that was pulled out. It finds the device again
/// when it is called, but gives the device up when it is called before that. One call lets gpsd
/// look at the device's silence, which must have lasted for some seconds, and a further one lets it
/// act.
constexpr int calls = 20;
constexpr auto call_interval = 300ms;
/// Reads for each wake-up: a gpsd that floods does not keep the time service waiting.
constexpr int max_reads = 16;

Addresses addresses_of(const std::string& host, const std::string& port) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  Addresses result;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) return result;
  for (const auto* at = found; at != nullptr; at = at->ai_next) {
    auto& address = result.emplace_back();
    address.size = at->ai_addrlen;
    std::copy_n(reinterpret_cast<const char*>(at->ai_addr), at->ai_addrlen,
                reinterpret_cast<char*>(&address.name));
  }
  freeaddrinfo(found);
  return result;
}

/// Lets TCP find out that the other machine has gone.
void keep_alive(int descriptor) {
  const auto set = [&](int level, int name, int value) {
    setsockopt(descriptor, level, name, &value, sizeof value);
  };
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
  set(IPPROTO_TCP, TCP_KEEPIDLE, 2);
  set(IPPROTO_TCP, TCP_KEEPINTVL, 1);
  set(IPPROTO_TCP, TCP_KEEPCNT, 3);
  set(IPPROTO_TCP, TCP_USER_TIMEOUT, 5000);
}

bool exists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

}  // namespace

Gpsd_connection::~Gpsd_connection() {
  close();
}

void Gpsd_connection::open(const Address& address) {
  close();
  descriptor_ =
      socket(address.name.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP);
  if (descriptor_ < 0) return;  // this machine does not have the address family
  keep_alive(descriptor_);
  if (::connect(descriptor_, reinterpret_cast<const sockaddr*>(&address.name), address.size) != 0 &&
      errno != EINPROGRESS) {
    close();
  }
}

void Gpsd_connection::close() {
  if (descriptor_ >= 0) ::close(descriptor_);
  descriptor_ = -1;
}

std::optional<std::span<const char>> Gpsd_connection::read() {
  ssize_t size = 0;
  do {
    size = recv(descriptor_, buffer_.data(), buffer_.size(), 0);
  } while (size < 0 && errno == EINTR);
  if (size < 0 && errno == EAGAIN) return std::nullopt;
  return std::span<const char>(buffer_).first(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
}

void Gpsd_connection::watch() {
  constexpr std::string_view request = "?WATCH={\"enable\":true,\"json\":true};\n";
  // Fits into every send buffer; a failure shows at the next read.
  [[maybe_unused]] const auto sent =
      send(descriptor_, request.data(), request.size(), MSG_NOSIGNAL);
}

Gpsd::Gpsd(const Gpsd_options& options, Output& output)
    : options_(options),
      output_(output),
      publisher_(output),
      reader_(options.device),
      sink_([this](const nmea::Fix& fix) { publish(fix); }),
      next_absence_report_(steady_clock::now() + absence_interval),
      patience_(min_patience) {}

Source_result Gpsd::run() {
  while (connect() && serve()) {
  }
  publisher_.result().gpsd = reader_.counters();
  return publisher_.result();
}

std::string Gpsd::place() const {
  return "gpsd at " + options_.host + ":" + options_.port;
}

/// Like Output::wait_until(); meanwhile shows that the receiver is away.
Gpsd::Wake Gpsd::wait_until(Time due, int input) {
  while (true) {
    const auto wake = output_.wait_until(std::min(due, next_absence_report_), input);
    const auto now = steady_clock::now();
    if (wake != Wake::due || now < next_absence_report_) return wake;
    next_absence_report_ = now + absence_interval;
    nmea::Fix nothing;
    nothing.present = false;
    nothing.satellites.emplace();
    publisher_.publish(nothing);
    if (now >= due) return wake;
  }
}

/// A name server may take its time: another thread asks it. Returns nothing once the output is
/// done.
std::optional<Addresses> Gpsd::resolve() {
  std::packaged_task<Addresses()> task(
      [host = options_.host, port = options_.port] { return addresses_of(host, port); });
  auto addresses = task.get_future();
  std::thread(std::move(task)).detach();
  while (addresses.wait_for(0s) != std::future_status::ready) {
    if (wait_until(steady_clock::now() + resolution_look) == Wake::stopped) return std::nullopt;
  }
  return addresses.get();
}

/// Returns with the first bytes of gpsd in the connection, or false when the output is done.
bool Gpsd::connect() {
  while (true) {
    const auto addresses = resolve();
    if (!addresses) return false;
    for (const auto& address : *addresses) {
      connection_.open(address);
      if (connection_.descriptor() < 0) continue;
      const auto wake = wait_until(steady_clock::now() + attempt_time, connection_.descriptor());
      if (wake == Wake::stopped) return false;
      if (wake == Wake::readable && take_bytes()) return true;
      connection_.close();
    }
    lose(Absence::gpsd);
    if (wait_until(steady_clock::now() + attempt_interval) == Wake::stopped) return false;
  }
}

/// Returns true when the connection has ended, false when the output is done.
bool Gpsd::serve() {
  received_ = steady_clock::now();
  was_connected_ = true;
  connection_.watch();
  while (true) {
    auto due = std::min(next_look_, next_call_);
    if (absence_ == Absence::nothing || absence_ == Absence::unknown) {
      due = std::min(due, received_ + patience_);
    }
    const auto wake = wait_until(due, connection_.descriptor());
    if (wake == Wake::stopped) return false;
    if (wake == Wake::readable && !take_bytes()) break;
    if (output_.is_done()) return false;
    handle_time(steady_clock::now());
  }
  connection_.close();
  reader_.restart();
  lose(Absence::gpsd);
  return true;
}

/// Returns false when the connection has ended.
bool Gpsd::take_bytes() {
  for (int reads = 0; reads < max_reads; ++reads) {
    const auto bytes = connection_.read();
    if (!bytes) break;
    if (bytes->empty()) return false;
    reader_.feed(*bytes, sink_);
  }
  reader_.pause(sink_);
  return true;
}

void Gpsd::publish(const nmea::Fix& fix) {
  const auto now = steady_clock::now();
  if (!fix.supplement) {
    if (absence_ != Absence::nothing) {
      if (absence_ != Absence::unknown) {
        say("receiver \"" + reader_.device() + "\" of " + place() + " is there");
      }
      absence_ = Absence::nothing;
      next_absence_report_ = Time::max();
    } else {
      patience_ = std::clamp<std::chrono::nanoseconds>(intervals_of_patience * (now - received_),
                                                       min_patience, max_patience);
    }
    received_ = now;
    calls_left_ = 0;
    next_call_ = Time::max();
    if (path_ != reader_.device()) {
      path_ = reader_.device();
      path_exists_ = exists(path_);
      next_look_ = path_exists_ ? now : Time::max();
    }
  }
  publisher_.publish(fix);
}

void Gpsd::handle_time(Time now) {
  if (reader_.device_is_missing()) lose(Absence::device);
  if (now >= next_look_) look_at_device(now);
  if ((absence_ == Absence::nothing || absence_ == Absence::unknown) &&
      now >= received_ + patience_) {
    lose(Absence::data);
    if (path_exists_) {
      calls_left_ = calls;
      next_call_ = now;
    }
  }
  if (now < next_call_) return;
  if (exists(path_)) connection_.watch();
  next_call_ = --calls_left_ > 0 ? now + call_interval : Time::max();
}

void Gpsd::look_at_device(Time now) {
  next_look_ = now + device_look;
  if (exists(path_) == path_exists_) return;
  path_exists_ = !path_exists_;
  calls_left_ = path_exists_ ? calls : 0;
  next_call_ = path_exists_ ? now : Time::max();
  if (!path_exists_) lose(Absence::device);
}

void Gpsd::lose(Absence absence) {
  reader_.forget();
  if (absence_ == absence) return;
  const bool was_there = absence_ == Absence::nothing;
  const std::string wanted = options_.device.empty() ? "" : " \"" + options_.device + "\"";
  switch (absence) {
    case Absence::gpsd:
      say(place() + (was_connected_ ? " has gone" : " is not there") + ", waiting for it");
      break;
    case Absence::device:
      say(was_there ? "receiver \"" + path_ + "\" of " + place() + " has gone, waiting for it"
                    : place() + " has no receiver" + wanted + ", waiting for one");
      break;
    case Absence::data:
      say(place() + " sends no positions of a receiver" + wanted + ", waiting for them");
      break;
    case Absence::nothing:
    case Absence::unknown:
      break;
  }
  absence_ = absence;
  next_absence_report_ = steady_clock::now();
}

}  // namespace gateway
