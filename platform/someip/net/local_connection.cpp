#include "platform/someip/net/local_connection.h"

namespace someip {

Local_connection::Local_connection(boost::asio::local::stream_protocol::socket socket,
                                   Endpoint peer,
                                   const Limits& limits,
                                   Handler& handler,
                                   Workers& workers,
                                   Counters& counters)
    : Byte_stream(std::move(socket), limits, workers, counters),
      handler_(handler),
      peer_(std::move(peer)),
      reader_(limits.message_bytes) {}

void Local_connection::send(const Local_head& head, const Header& header, Bytes payload) {
  if (header_size + payload.size() > limits_.message_bytes) {
    counters_.refused_message_size.add();
    return;
  }
  enqueue(local_frame_bytes(head, header, payload));
}

void Local_connection::take(Bytes received) {
  reader_.append(received);
  while (const auto frame = reader_.next()) {
    handler_.received(*frame, self());
    if (!is_open()) return;
  }
  if (!reader_.broken()) return;
  counters_.dropped_malformed.add();
  refuse("what it sends is no frame");
}

void Local_connection::ended(const char* why, End end) {
  handler_.lost(self(), end == End::refused ? why : nullptr);
}

std::optional<Received> received_from(const Local_frame& frame, Counters& counters) {
  const auto header = read_header(frame.message);
  if (!header || header->segmented()) {
    counters.dropped_segments.add();
    return std::nullopt;
  }
  const Bytes payload = frame.message.subspan(header_size);
  Received received{*header, {}, Buffer::copy_of(payload)};
  received.payload = Bytes(received.buffer.data(), payload.size());
  return received;
}

void post_all(Tasks tasks, Workers& workers) {
  for (auto& task : tasks)
    workers.post([task = std::move(task)] { task->run(); });
}

}  // namespace someip
