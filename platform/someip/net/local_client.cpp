#include "platform/someip/net/local_client.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "platform/someip/net/local_path.h"

namespace someip {

namespace {
constexpr Milliseconds first_retry{50};
constexpr Milliseconds longest_retry{1000};
}  // namespace

Local_client::Local_client(std::string path,
                           Endpoint server,
                           const Limits& limits,
                           Workers& workers,
                           Counters& counters,
                           Events events)
    : path_(std::move(path)),
      server_(std::move(server)),
      limits_(limits),
      workers_(workers),
      counters_(counters),
      events_(std::move(events)),
      timer_(workers.control()),
      next_retry_(first_retry) {}

void Local_client::close() {
  closed_ = true;
  timer_.cancel();
  if (const auto connection = std::exchange(connection_, nullptr)) connection->close();
}

void Local_client::connect() {
  std::error_code error;
  const int descriptor = connect_local(path_, error);
  if (descriptor < 0) {
    retry();
    return;
  }
  using boost::asio::local::stream_protocol;
  connection_ = std::make_shared<Local_connection>(
      stream_protocol::socket(workers_.control(), stream_protocol(), descriptor), server_, limits_,
      static_cast<Local_connection::Handler&>(*this), workers_, counters_);
  connection_->start();
  events_.changed(true);
}

void Local_client::retry() {
  timer_.expires_after(next_retry_);
  next_retry_ = std::min(next_retry_ * 2, longest_retry);
  timer_.async_wait([this](const boost::system::error_code& cancelled) {
    if (!cancelled && !closed_) connect();
  });
}

void Local_client::send_discovery(Bytes message, bool to_all) {
  if (connection_) connection_->send_discovery(message, to_all);
}

void Local_client::send(const Local_head& head, const Header& header, Bytes payload) {
  if (connection_) connection_->send(head, header, payload);
}

void Local_client::received(const Local_frame& frame, const std::shared_ptr<Local_connection>&) {
  next_retry_ = first_retry;
  events_.received(frame);
}

void Local_client::lost(const std::shared_ptr<Local_connection>&, const char*) {
  connection_.reset();
  events_.changed(false);
  if (!closed_) retry();
}

}  // namespace someip
