#include "tools/posctl/serve/page_content.h"

#include <boost/beast/http.hpp>

namespace posctl::serve {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;

constexpr std::string_view first_page = "index.html";

bool accepts_gzip(const Http_message& message) {
  const auto found = message.find(http::field::accept_encoding);
  return found != message.end() && found->value().find("gzip") != beast::string_view::npos;
}

/// The page with the token behind the address of each of its files.
std::string with_token(std::string html, std::string_view token) {
  for (const Page_file& file : page_files()) {
    for (const std::string_view attribute : {"src=\"", "href=\""}) {
      for (const std::string_view prefix : {"", "./"}) {
        const std::string before =
            std::string(attribute) + std::string(prefix) + std::string(file.name) + '"';
        for (auto at = html.find(before); at != std::string::npos; at = html.find(before, at + 1))
          html.insert(at + before.size() - 1, "?token=" + std::string(token));
      }
    }
  }
  return html;
}

std::map<std::string_view, Page_file> files_by_name() {
  std::map<std::string_view, Page_file> files;
  for (const Page_file& file : page_files())
    files.emplace(file.name, file);
  return files;
}

/// Null if no token is needed.
std::shared_ptr<const std::string> first_page_with(
    std::string_view token, const std::map<std::string_view, Page_file>& files) {
  const auto found = files.find(first_page);
  if (token.empty() || found == files.end()) return nullptr;
  return std::make_shared<const std::string>(with_token(std::string(found->second.plain), token));
}

}  // namespace

Page_content::Page_content(std::string_view token)
    : files_(files_by_name()), page_(first_page_with(token, files_)) {}

std::optional<Http_answer> Page_content::answer(const Http_request& request) const {
  const auto path = request.path();
  if (!path.starts_with('/')) return std::nullopt;
  const auto found = files_.find(path == "/" ? first_page : path.substr(1));
  if (found == files_.end()) return std::nullopt;
  return answer_file(request, found->second);
}

Http_answer Page_content::answer_file(const Http_request& request, const Page_file& file) const {
  Http_answer answer;
  answer.type = file.type;
  if (page_ && file.name == first_page) {
    answer.text = page_;
    return answer;
  }
  const std::string tag = '"' + std::string(file.tag) + '"';
  answer.fields = {{"ETag", tag}, {"Vary", "Accept-Encoding"}};
  const auto known = request.message.find(http::field::if_none_match);
  if (known != request.message.end() && known->value() == tag) {
    answer.status = http::status::not_modified;
  } else if (!file.packed.empty() && accepts_gzip(request.message)) {
    answer.fixed = file.packed;
    answer.fields.emplace_back("Content-Encoding", "gzip");
  } else {
    answer.fixed = file.plain;
  }
  return answer;
}

}  // namespace posctl::serve
