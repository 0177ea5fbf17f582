/// The deployment manifest: which file is in force, and its contents as plain values.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/someip/base/deployment.h"

namespace tq::com {

/// The manifest in force; mw::com::runtime::Component_singleton lists the places that are searched.
/// The environment variable <NAME>_NODE_ADDRESS replaces the addresses of the node `node_in_use`.
/// Throws std::runtime_error that names the file, the key and the expected content.
[[nodiscard]] someip::Deployment load_deployment(std::string_view node_in_use = {});

/// `source` names the text in errors.
[[nodiscard]] someip::Deployment parse_deployment(std::string_view text, const std::string& source);

/// The text of a file that may be a manifest; nothing if there is no such file. Throws
/// std::runtime_error for anything but a regular file of at most 1 MiB, because others can wait for
/// their writer or have no end.
[[nodiscard]] std::optional<std::string> read_manifest(const std::string& path);

}  // namespace tq::com
