/// Exceptions of persistency. Every text names the file or key, the expected and the actual
/// content.
#pragma once

#include <stdexcept>

namespace ara::per {

class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The folder of the storages was missing (it now exists: try again) or cannot be created.
class ExceptionStorageLocationNotFound : public Exception {
 public:
  using Exception::Exception;
};

/// A value was read as another type, or the arguments of a call make no sense.
class ExceptionLogicError : public Exception {
 public:
  using Exception::Exception;
};

/// The file of a storage is not valid: syntax, types, values or size.
class ExceptionValidation : public Exception {
 public:
  using Exception::Exception;
};

/// The operating system refused to read or write.
class ExceptionPhysicalStorageError : public Exception {
 public:
  using Exception::Exception;
};

}  // namespace ara::per
