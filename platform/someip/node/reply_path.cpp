#include "platform/someip/node/reply_path.h"

#include <cstdint>
#include <memory>
#include <span>
#include <utility>

namespace someip {

namespace {

/// A response that carries an error.
class Error_response final : public Task {
 public:
  Error_response(const Header& header, Reply_path reply, Request_budget::Place place)
      : header_(header), reply_(std::move(reply)), place_(std::move(place)) {}
  void run() override { reply_.send(header_, {}); }

 private:
  const Header header_;
  const Reply_path reply_;
  const Request_budget::Place place_;
};

}  // namespace

void Reply_path::send(const Header& header, Bytes payload) const {
  if (stream) {
    stream->send(header, payload);
  } else {
    udp->send(header, payload, std::span(&to, 1));
  }
}

void refuse(const Header& request,
            Return_code code,
            Reply_path reply,
            Request_budget::Place place,
            Tasks& tasks) {
  if (!request.is(Message_type::request) || request.code != 0) return;
  Header header = request;
  header.protocol = protocol_version;  // never one that we do not speak (someip_703)
  header.type = static_cast<std::uint8_t>(Message_type::response);
  header.code = static_cast<std::uint8_t>(code);
  tasks.push_back(std::make_shared<Error_response>(header, std::move(reply), std::move(place)));
}

std::size_t repetition_key(const Header& request, const Address& from) {
  return Endpoint_hash{}({from, 0}) ^ (std::size_t{request.service} << 16U | request.method);
}

}  // namespace someip
