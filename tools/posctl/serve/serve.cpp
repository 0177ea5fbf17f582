#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/monitor_reports.h"
#include "tools/posctl/serve/guard.h"
#include "tools/posctl/serve/live_source.h"
#include "tools/posctl/serve/marks.h"
#include "tools/posctl/serve/page_server.h"
#include "tools/stop_signal.h"

namespace posctl {
namespace {

using namespace serve;

constexpr const char* node = "posctl";

/// The network shows the sources too; the socket of the application is enough for the rest.
class Way_to_all {
 public:
  explicit Way_to_all(const Way_options& options) {
    if (!options.node.empty() || !options.connect.empty()) {
      way_.emplace(options);
      return;
    }
    try {
      way_.emplace(Way_options{.node = node, .connect = {}});
    } catch (const std::exception& error) {
      way_.emplace(options);
      std::fprintf(stderr, "posctl: %s, so the page shows no input: %s\n", way_->text().c_str(),
                   error.what());
    }
  }
  [[nodiscard]] const std::string& text() const { return way_->text(); }

 private:
  std::optional<Way> way_;
};

Json hello_of(const Serve_options& options, const std::string& way) {
  Json reasons = Json::array();
  for (const auto& [value, name] : binding::enumerators<mw::dm::dem::InitMonitorReason>)
    reasons.push_back(name);
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return {{"version", POS_VERSION},
          {"server", std::to_string(now.count()) + "-" + std::to_string(::getpid())},
          {"source", "live"},
          {"control", options.control},
          {"way", way},
          {"marks", !options.marks.empty()},
          {"monitorReasons", std::move(reasons)},
          {"componentStates", Json::array({"kOn", "kPrepSD"})}};
}

std::string address_of(const boost::asio::ip::tcp::endpoint& endpoint, const std::string& token) {
  const std::string host = endpoint.address().is_unspecified()
                               ? "localhost:" + std::to_string(endpoint.port())
                               : text_of(endpoint);
  return "http://" + host + "/" + (token.empty() ? "" : "?token=" + token);
}

/// Leaves a browser that does not come to its user.
void open_in_browser(std::string address) {
  const auto is_set = [](const char* name) { return std::getenv(name) != nullptr; };
  // Not with the blocked and ignored signals of this program.
  sigset_t none{}, broken_pipe{};
  sigemptyset(&none);
  sigemptyset(&broken_pipe);
  sigaddset(&broken_pipe, SIGPIPE);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &broken_pipe);
  pid_t child = -1;
  std::string program = "xdg-open";
  const std::array<char*, 3> arguments{program.data(), address.data(), nullptr};
  if ((!is_set("DISPLAY") && !is_set("WAYLAND_DISPLAY")) ||
      ::posix_spawnp(&child, program.c_str(), nullptr, &attributes, arguments.data(), environ) !=
          0) {
    std::fputs("posctl: there is no desktop to open the page on\n", stderr);
    return;
  }
  std::thread([child] { (void)::waitpid(child, nullptr, 0); }).detach();
}

}  // namespace

int serve_page(const Serve_options& options) {
  const auto endpoint = listen_endpoint(options.listen);
  if (!options.token.empty() && !is_token(options.token)) {
    throw tools::Usage_error(
        "--token: expected 8 to 128 letters, digits, dashes, dots, underscores and tildes");
  }
  Page_options page;
  page.token = options.token;
  if (!options.marks.empty())
    page.marks = std::make_shared<const std::string>(
        json_of(read_marks(options.marks)).dump(-1, ' ', false, Json::error_handler_t::replace));
  tools::Stop_signal stop_signal;
  const Way_to_all way(options.way);
  Page_feed feed(hello_of(options, way.text()));
  Live_actor actor;
  if (options.control) page.actor = &actor;
  std::optional<Page_server> server;
  try {
    server.emplace(endpoint, feed, std::move(page));
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error("cannot listen at " + options.listen + ": " + error.code().message());
  }
  const Live_source source(feed, options.way.node.empty() ? node : options.way.node);
  const std::string address = address_of(server->endpoint(), options.token);
  if (!endpoint.address().is_loopback() && options.token.empty()) {
    std::fprintf(stderr,
                 "posctl: everyone who reaches %s sees the page%s: it has no password, --token "
                 "gives it one\n",
                 options.listen.c_str(), options.control ? " and may act" : "");
  }
  tools::write_output(address + "\n", stop_signal.descriptor());
  if (options.open) open_in_browser(address);
  while (stop_signal.wait_until(Deadline::max()) != tools::Stop_signal::Wake::stopped)
    continue;
  return 0;
}

}  // namespace posctl
