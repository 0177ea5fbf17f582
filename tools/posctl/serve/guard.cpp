#include "tools/posctl/serve/guard.h"

#include <algorithm>
#include <boost/beast/http/field.hpp>
#include <charconv>
#include <cstdint>

namespace posctl::serve {
namespace {

namespace http = boost::beast::http;
using Address = boost::asio::ip::address;

constexpr std::size_t shortest_token = 8;
constexpr std::size_t longest_token = 128;

bool is_unreserved(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

std::string_view value_of(const Http_message& message, http::field field) {
  const auto found = message.find(field);
  if (found == message.end()) return {};
  return {found->value().data(), found->value().size()};
}

bool is_port(std::string_view text) {
  std::uint16_t port = 0;
  const auto* const end = text.data() + text.size();
  const auto [parsed, error] = std::from_chars(text.data(), end, port);
  return error == std::errc{} && parsed == end;
}

/// "127.0.0.1" of "127.0.0.1:8030", "::1" of "[::1]:8030"; nothing for what is no host.
std::optional<std::string_view> name_of_host(std::string_view host) {
  std::string_view name = host;
  std::string_view port;
  if (host.starts_with('[')) {
    const auto end = host.find(']');
    if (end == std::string_view::npos) return std::nullopt;
    name = host.substr(1, end - 1);
    port = host.substr(end + 1);
  } else if (const auto colon = host.find(':'); colon != std::string_view::npos) {
    name = host.substr(0, colon);
    port = host.substr(colon);
  }
  if (!port.empty() && (port.front() != ':' || !is_port(port.substr(1)))) return std::nullopt;
  return name;
}

bool equal_without_case(std::string_view a, std::string_view b) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  return std::ranges::equal(a, b, {}, lower, lower);
}

/// An IPv4 address also where a socket for both kinds has taken it.
Address plain(const Address& address) {
  if (!address.is_v6() || !address.to_v6().is_v4_mapped()) return address;
  return boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, address.to_v6());
}

bool is_host(std::string_view host, const Address& local) {
  const auto name = name_of_host(host);
  if (!name) return false;
  const Address reached = plain(local);
  if (reached.is_loopback() && equal_without_case(*name, "localhost")) return true;
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(std::string(*name), error);
  return !error && plain(address) == reached;
}

/// Takes the same time wherever the two differ.
bool is_equal(std::string_view given, std::string_view token) {
  unsigned difference = given.size() == token.size() ? 0 : 1;
  for (std::size_t i = 0; i < token.size(); ++i) {
    const char other = i < given.size() ? given[i] : '\0';
    difference |= static_cast<unsigned char>(other ^ token[i]);
  }
  return difference == 0;
}

bool has_token(const Http_request& request, std::string_view token) {
  constexpr std::string_view scheme = "Bearer ";
  const auto authorization = value_of(request.message, http::field::authorization);
  const bool in_header =
      authorization.starts_with(scheme) && is_equal(authorization.substr(scheme.size()), token);
  return in_header || is_equal(query_value(request.query(), "token"), token);
}

}  // namespace

bool is_token(std::string_view text) {
  return text.size() >= shortest_token && text.size() <= longest_token &&
         std::ranges::all_of(text, is_unreserved);
}

std::string_view query_value(std::string_view query, std::string_view name) {
  while (!query.empty()) {
    const auto part = query.substr(0, query.find('&'));
    if (part.size() > name.size() && part.starts_with(name) && part[name.size()] == '=')
      return part.substr(name.size() + 1);
    query.remove_prefix(std::min(part.size() + 1, query.size()));
  }
  return {};
}

std::optional<http::status> refusal_of(const Http_request& request, std::string_view token) {
  const Http_message& message = request.message;
  if (message.count(http::field::host) != 1 || message.count(http::field::origin) > 1)
    return http::status::bad_request;
  const auto host = value_of(message, http::field::host);
  if (!is_host(host, request.local)) return http::status::misdirected_request;
  const auto origin = message.find(http::field::origin);
  if (origin != message.end() &&
      !equal_without_case(value_of(message, http::field::origin), "http://" + std::string(host)))
    return http::status::forbidden;
  if (!token.empty() && !has_token(request, token)) return http::status::unauthorized;
  return std::nullopt;
}

void add_security_fields(Http_answer& answer, const Http_request& request) {
  const auto host = request.message.find(http::field::host);
  const std::string here =
      host == request.message.end() ? "" : " ws://" + std::string(host->value());
  answer.fields.insert(
      answer.fields.end(),
      {{"Content-Security-Policy",
        "default-src 'none'; script-src 'self'; style-src 'self'; "
        "img-src 'self' data:; font-src 'self'; connect-src 'self'" +
            here + "; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
       {"X-Frame-Options", "DENY"},
       {"X-Content-Type-Options", "nosniff"},
       {"Referrer-Policy", "no-referrer"},
       {"Cross-Origin-Resource-Policy", "same-origin"},
       {"Cross-Origin-Opener-Policy", "same-origin"},
       {"Cache-Control", "no-cache"}});
}

}  // namespace posctl::serve
