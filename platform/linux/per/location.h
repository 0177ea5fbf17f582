/// The folders of stores and of their first values.
#pragma once

#include <string>

namespace ara::per {

/// The folder of all stores, from the environment. Throws ExceptionStorageLocationNotFound if the
/// environment names none.
[[nodiscard]] std::string storage_folder();

/// Returns if `folder` exists. Otherwise creates it and throws ExceptionStorageLocationNotFound,
/// with the reason if that failed.
void require_folder(const std::string& folder);

/// The folder of a port's first values; it need not exist. Without the environment variable it is
/// /etc/pos (in the application "pos") if that has the port's file. Otherwise it follows from the
/// program's own path; empty if that path is unknown.
[[nodiscard]] std::string initial_data_folder(const std::string& port);

}  // namespace ara::per
