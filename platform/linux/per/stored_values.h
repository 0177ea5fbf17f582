/// The values that a store begins with: for its user, and for programs that only look at it.
#pragma once

#include <string>

#include "platform/linux/per/json_text.h"
#include "platform/linux/per/store_file.h"

namespace ara::per {

struct Stored_values {
  enum class Origin : std::uint8_t { file, first_values, none };

  Values values;
  Origin origin = Origin::none;
};

/// Reads the file of the store of `port`, or without it the first values. Changes nothing. Throws
/// ExceptionValidation and ExceptionPhysicalStorageError as KeyValueStorage does.
[[nodiscard]] Stored_values stored_values(const Store_file& file, const std::string& port);

/// The file of a store; neither it nor its folder need exist. Throws
/// ExceptionStorageLocationNotFound if the environment names no folder.
[[nodiscard]] Store_file file_of_store(const std::string& port);

}  // namespace ara::per
