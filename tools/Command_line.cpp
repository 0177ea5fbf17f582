#include "tools/Command_line.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <sstream>

namespace tools {

std::optional<int> parse(CLI::App& app, int argc, char** argv) {
  app.set_version_flag("--version",
                       std::filesystem::path(argv[0]).filename().string() + " " POS_VERSION,
                       "Print the version and exit");
  try {
    app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    std::ostringstream output;
    std::ostringstream errors;
    const int code = app.exit(error, output, errors);
    std::fputs(errors.str().c_str(), stderr);
    write_output(output.str());
    return code == 0 ? 0 : exit_usage;
  }
}

void write_output(std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(STDOUT_FILENO, text.data(), text.size());
    if (count >= 0) {
      text.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EAGAIN) {
      pollfd output{STDOUT_FILENO, POLLOUT, 0};
      ::poll(&output, 1, -1);
    } else if (errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "cannot write to standard output");
    }
  }
}

int report_exception(const char* program) {
  try {
    throw;
  } catch (const std::system_error& error) {
    if (error.code() == std::errc::broken_pipe) return 0;
    std::fprintf(stderr, "%s: %s\n", program, error.what());
  } catch (const Usage_error& error) {
    std::fprintf(stderr, "%s: %s\n", program, error.what());
    return exit_usage;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", program, error.what());
  }
  return exit_failed;
}

}  // namespace tools
