/// The text of the exception that a piece of work throws.
#pragma once

#include <exception>
#include <string>

namespace test {

/// Says so when another exception comes, or none.
template <class Error = std::exception, class Work>
std::string error_of(const Work& work) {
  try {
    work();
  } catch (const std::exception& error) {
    const bool is_wanted = dynamic_cast<const Error*>(&error) != nullptr;
    return (is_wanted ? "" : "another exception: ") + std::string(error.what());
  }
  return "no exception";
}

}  // namespace test
