#include "tools/command_line.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <sstream>

namespace tools {

std::optional<int> parse(CLI::App& app, int argc, char** argv) {
  const std::string version = std::filesystem::path(argv[0]).filename().string() + " " POS_VERSION;
  app.set_version_flag("--version", version, "Print the version and exit");
  for (auto* command : app.get_subcommands({}))
    command->set_version_flag("--version", version, "Print the version and exit");
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

void write_output(std::string_view text, int cancel) {
  while (!text.empty()) {
    std::array<pollfd, 2> events{{{STDOUT_FILENO, POLLOUT, 0}, {cancel, POLLIN, 0}}};
    static_cast<void>(::poll(events.data(), events.size(), -1));
    if (events[0].revents == 0 && events[1].revents != 0) return;
    // A pipe that is writable has room for this many bytes: the write does not block.
    const ssize_t count =
        ::write(STDOUT_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    if (count >= 0) {
      text.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EINTR && errno != EAGAIN) {
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
  } catch (const No_answer& error) {
    std::fprintf(stderr, "%s: %s\n", program, error.what());
    return exit_no_answer;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", program, error.what());
  }
  return exit_failed;
}

}  // namespace tools
