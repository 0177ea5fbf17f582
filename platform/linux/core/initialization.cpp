#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include "platform/linux/core/application.h"

namespace ara::core {
namespace {

constexpr std::size_t longest_name = 32;

/// Written once, before the first thread exists.
constinit Application the_application{.name = "adaptive"};

bool is_letter(char c) {
  return c >= 'a' && c <= 'z';
}
bool may_follow(char c) {
  return is_letter(c) || (c >= '0' && c <= '9') || c == '_';
}

}  // namespace

void Initialize(const Application& application) {
  const auto name = application.name;
  if (name.empty() || name.size() > longest_name || !is_letter(name.front()) ||
      !std::ranges::all_of(name, may_follow)) {
    throw std::invalid_argument("application name \"" + std::string(name.substr(0, 64)) +
                                "\": expected 1 to 32 lower-case letters, digits and '_', a letter "
                                "first");
  }
  the_application = application;
  if (application.node.empty()) the_application.node = name;
  std::signal(SIGPIPE, SIG_IGN);
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) >= 0) continue;
    // open() takes the lowest free number, which is this one. Without /dev, a descriptor whose
    // reads and writes all fail keeps the number.
    if (::open("/dev/null", O_RDWR) < 0) (void)::open("/", O_PATH);
  }
}

const Application& application() noexcept {
  return the_application;
}

std::string variable_name(std::string_view purpose) {
  std::string name(the_application.name);
  std::ranges::transform(name, name.begin(), [](char c) {
    return is_letter(c) ? static_cast<char>(c - 'a' + 'A') : c;
  });
  return name.append("_").append(purpose);
}

std::string variable(std::string_view purpose) {
  const char* const value = std::getenv(variable_name(purpose).c_str());
  return value != nullptr ? value : "";
}

}  // namespace ara::core
