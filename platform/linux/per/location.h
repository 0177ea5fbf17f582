/// Where stores and their first values lie.
#pragma once

#include <string>

namespace ara::per {

/// The folder of all stores, as the environment says. Throws ExceptionStorageLocationNotFound when
/// it says nothing at all.
[[nodiscard]] std::string StorageFolder();

/// Returns when `folder` is there. Otherwise creates it and throws
/// ExceptionStorageLocationNotFound, with the reason when creating failed.
void RequireFolder(const std::string& folder);

/// The folder of the first values; it need not exist. Empty when the program's own place, which
/// decides without an environment variable, cannot be found out.
[[nodiscard]] std::string InitialDataFolder();

}  // namespace ara::per
