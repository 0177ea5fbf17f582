#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/lasting_way.h"
#include "tools/posctl/monitor_reports.h"
#include "tools/posctl/serve/component_watch.h"
#include "tools/posctl/serve/guard.h"
#include "tools/posctl/serve/live_actor.h"
#include "tools/posctl/serve/live_source.h"
#include "tools/posctl/serve/marks.h"
#include "tools/posctl/serve/page_server.h"
#include "tools/posctl/serve/status_watch.h"
#include "tools/stop_signal.h"

namespace posctl {
namespace {

using namespace serve;

constexpr const char* node = "posctl";

/// Another one after each start, by which the page knows a restart.
std::string new_server_id() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::to_string(now.count()) + "-" + std::to_string(::getpid());
}

Json hello_of(const Serve_options& options, const std::string& server, const std::string& way) {
  Json reasons = Json::array();
  for (const auto& [value, name] : binding::enumerators<mw::dm::dem::InitMonitorReason>)
    reasons.push_back(name);
  return {{"version", POS_VERSION},
          {"server", server},
          {"source", "live"},
          {"control", options.control},
          {"way", way},
          {"marks", !options.marks.empty()},
          {"monitorReasons", std::move(reasons)},
          {"componentStates", Json::array({"kOn", "kPrepSD"})}};
}

/// The way of the page is looked at anew this often.
constexpr std::chrono::seconds look_period{1};
/// While another way than the best one serves, the best one is tried this often.
constexpr int better_way_looks = 5;

/// Fills the feed on the best way to the application, from its construction to its destruction.
class Source_on_way {
 public:
  /// `feed` and `actor` outlive it. Throws tools::Usage_error.
  Source_on_way(const Serve_options& options, Page_feed& feed, Live_actor& actor)
      : options_(options),
        feed_(feed),
        actor_(actor),
        way_(choices(options.way), [this](const Possible_way& way) { return make_source(way); }) {
    renew();
  }
  /// Call it once each look_period.
  void look() {
    const auto* const source = way_.look();
    const bool served = source != nullptr && source->has_application();
    if (!served || (!way_.is_first_choice() && ++looks_ % better_way_looks == 0)) renew();
    // A page that receives nothing takes the server for dead.
    if (way_.look() == nullptr) feed_.state(Topic::services, Json::object());
  }

 private:
  /// The network shows the sources too; the socket of the application is enough for the rest.
  static Lasting_way<Live_source>::Choices choices(const Way_options& options) {
    Lasting_way<Live_source>::Choices all;
    if (options.node.empty() && options.connect.empty())
      all.emplace_back([] { return over_the_network(node); });
    all.emplace_back([options] { return choose_way(options); });
    return all;
  }
  std::unique_ptr<Live_source> make_source(const Possible_way& way) {
    Live_options live{.node = options_.way.node.empty() ? node : options_.way.node,
                      .faults_absence = {}};
    const bool is_local = !way.socket.empty();
    if (is_local)
      std::fprintf(stderr, "posctl: %s, so the page shows no input\n", way.text.c_str());
    if (options_.control) live.faults_absence = is_local ? no_gateway_there : no_gateway;
    return std::make_unique<Live_source>(feed_, live);
  }
  void renew() {
    actor_.change_way([this] {
      way_.renew();
      return way_.look() == nullptr ? way_.problem() : "";
    });
    const bool has_way = way_.look() != nullptr;
    const std::string text = has_way ? way_.text() : "none: " + way_.problem();
    if (std::exchange(reported_, text) == text) return;
    feed_.greet(hello_of(options_, server_, text));
    if (!has_way) tell_no_application(feed_, "no way to it: " + way_.problem());
  }

  static constexpr const char* no_gateway =
      "no gateway offers its faults: start gnss-gateway with --control";
  static constexpr const char* no_gateway_there =
      "the server reaches the application through its socket, and no gateway there: faults need "
      "the network";

  const Serve_options& options_;
  const std::string server_ = new_server_id();
  Page_feed& feed_;
  Live_actor& actor_;
  Lasting_way<Live_source> way_;
  std::string reported_;
  int looks_ = 0;
};

std::string address_of(const boost::asio::ip::tcp::endpoint& endpoint, const std::string& token) {
  const std::string host = endpoint.address().is_unspecified()
                               ? "localhost:" + std::to_string(endpoint.port())
                               : text_of(endpoint);
  return "http://" + host + "/" + (token.empty() ? "" : "?token=" + token);
}

/// Leaves a browser that does not come to its user.
void open_in_browser(std::string address) {
  const auto is_set = [](const char* name) { return std::getenv(name) != nullptr; };
  if (!is_set("DISPLAY") && !is_set("WAYLAND_DISPLAY")) {
    std::fputs("posctl: there is no desktop to open the page on\n", stderr);
    return;
  }
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
  const int error =
      ::posix_spawnp(&child, program.c_str(), nullptr, &attributes, arguments.data(), environ);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) {
    std::fprintf(stderr, "posctl: cannot start xdg-open: %s\n",
                 std::generic_category().message(error).c_str());
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
        marks_json(read_marks(options.marks)).dump(-1, ' ', false, Json::error_handler_t::replace));
  tools::Stop_signal stop_signal;
  Page_feed feed(Json::object());
  Live_actor actor;
  if (options.control) page.actor = &actor;
  const Component_watch component(feed);
  Source_on_way source(options, feed, actor);
  std::optional<Page_server> server;
  try {
    server.emplace(endpoint, feed, std::move(page));
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error("cannot listen at " + options.listen + ": " + error.code().message());
  }
  const std::string address = address_of(server->endpoint(), options.token);
  if (!endpoint.address().is_loopback() && options.token.empty()) {
    std::fprintf(stderr,
                 "posctl: everyone who reaches %s sees the page%s: it has no password, --token "
                 "gives it one\n",
                 options.listen.c_str(), options.control ? " and may act" : "");
  }
  tools::write_output(address + "\n", stop_signal.descriptor());
  if (options.open) open_in_browser(address);
  while (stop_signal.wait_until(Deadline::clock::now() + look_period) !=
         tools::Stop_signal::Wake::stopped)
    source.look();
  return 0;
}

}  // namespace posctl
