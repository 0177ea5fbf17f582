/// Which requests the page's server answers: those of this machine's own page, with the token where
/// one is set.
#pragma once

#include <boost/asio/ip/address.hpp>
#include <boost/beast/http/status.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "tools/posctl/http_server.h"

namespace posctl::serve {

/// Unreserved characters of an address, so that it needs no escapes there; 8 to 128 of them.
[[nodiscard]] bool is_token(std::string_view text);

/// The value of a name in "a=1&b=2"; empty without it.
[[nodiscard]] std::string_view query_value(std::string_view query, std::string_view name);

/// The status that refuses the request; nothing if it may pass. `token` is empty if none is needed.
///
/// The Host has to be the address that the client has reached, or localhost for a loopback address.
/// That refuses DNS rebinding: an attacker's name that points to this address is another Host. The
/// Origin that browsers send has to be the page itself.
[[nodiscard]] std::optional<boost::beast::http::status> refusal_of(const Http_request& request,
                                                                   std::string_view token);

/// Lets the page use nothing but this server, and no other page use this one.
void add_security_fields(Http_answer& answer, const Http_request& request);

}  // namespace posctl::serve
