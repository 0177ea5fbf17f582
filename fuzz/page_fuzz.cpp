// What a client of the page can send, and a file of landmarks: an error in words, or values that
// the server relies on.
#include <boost/beast/http.hpp>
#include <cmath>
#include <string>
#include <string_view>

#include "fuzz/input.h"
#include "tools/command.h"
#include "tools/posctl/serve/action.h"
#include "tools/posctl/serve/guard.h"
#include "tools/posctl/serve/marks.h"

namespace {

namespace http = boost::beast::http;
using fuzz::require;

constexpr std::string_view token = "secret-1";

void check_request(std::string_view text) {
  http::request_parser<http::empty_body> parser;
  parser.header_limit(8192);
  parser.body_limit(std::uint64_t{0});
  parser.eager(true);
  boost::system::error_code error;
  parser.put(boost::asio::buffer(text.data(), text.size()), error);
  if (error || !parser.is_header_done()) return;
  const auto local = boost::asio::ip::make_address("127.0.0.1");
  const posctl::Http_request request{parser.get(), local, {}};
  if (posctl::serve::refusal_of(request, token)) return;
  require(request.message.count(http::field::host) == 1, "a request has one host");
  require(text.find(token) != std::string_view::npos, "no request without the token");
  require(request.path().find('?') == std::string_view::npos, "a path has no query");
}

void check_action(std::string_view text) {
  try {
    const auto action = posctl::serve::action_of(text);
    require(action.name.size() <= text.size() * 3, "a name is a part of the text");
  } catch (const tools::Usage_error&) {  // NOLINT(bugprone-empty-catch): refused in words
  }
}

void check_marks(std::string_view text) {
  try {
    for (const auto& mark : posctl::serve::marks_of(text)) {
      require(!mark.points.empty(), "a mark has a point");
      for (const auto& point : mark.points)
        require(std::abs(point.longitude) <= 180 && std::abs(point.latitude) <= 90,
                "a point is on the globe");
    }
  } catch (const std::runtime_error&) {  // NOLINT(bugprone-empty-catch): refused in words
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const fuzz::Exact exact(std::as_bytes(std::span(data, size)).subspan(1));
  const fuzz::Bytes bytes = exact;
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  switch (*data) {
    case 'r':
      check_request(text);
      break;
    case 'a':
      check_action(text);
      break;
    default:
      check_marks(text);
  }
  return 0;
}
