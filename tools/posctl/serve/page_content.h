/// The files of the page as answers.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tools/posctl/http_server.h"
#include "tools/posctl/serve/page_files.h"

namespace posctl::serve {

/// The page as it was built, compressed where the browser takes it. With a token, the first page
/// names it behind the address of each other file.
class Page_content {
 public:
  explicit Page_content(std::string_view token);

  /// Empty if the page has no such file.
  [[nodiscard]] std::optional<Http_answer> answer(const Http_request& request) const;

 private:
  [[nodiscard]] Http_answer answer_file(const Http_request& request, const Page_file& file) const;

  const std::map<std::string_view, Page_file> files_;
  const std::shared_ptr<const std::string> page_;  ///< with the token, if there is one
};

}  // namespace posctl::serve
