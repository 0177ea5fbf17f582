/// The key-value storage of the application, for posctl doctor: read only.
#pragma once

#include <optional>
#include <string>

namespace posctl::doctor {

/// The file of the store; nothing if the environment names no folder.
[[nodiscard]] std::optional<std::string> store_path();
/// A Boolean setting from the store, else from the first values, else `otherwise`.
[[nodiscard]] bool store_setting(const std::string& key, bool otherwise);

}  // namespace posctl::doctor
