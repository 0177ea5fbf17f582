/// What persistency throws. Every text names the file or key, what was expected and what was found.
#pragma once

#include <stdexcept>

namespace ara::per {

class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The folder that holds the storages is not there (it has been created: try again) or cannot be
/// created.
class ExceptionStorageLocationNotFound : public Exception {
 public:
  using Exception::Exception;
};

/// A value was asked for as something that it is not, or a call makes no sense for its arguments.
class ExceptionLogicError : public Exception {
 public:
  using Exception::Exception;
};

/// The file of a storage is not what it should be: syntax, types, values, size.
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
