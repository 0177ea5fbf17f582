/// What an installation places beside the program, from the table of commands: manual pages, and
/// the completion of shells.
#pragma once

#include <map>
#include <string>

namespace posctl {

/// The text of each page by its file name: posctl.1, posctl-status.1 …
[[nodiscard]] std::map<std::string, std::string> manual_pages();

/// The script for "bash", "zsh" or "fish".
[[nodiscard]] std::string completion(const std::string& shell);

}  // namespace posctl
