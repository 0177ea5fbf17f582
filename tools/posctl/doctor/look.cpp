#include "tools/posctl/doctor/look.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "app/application_instance.h"
#include "ara/time/slave_time_base.h"
#include "clients/GNSS.h"
#include "mw/com/runtime.h"
#include "platform/linux/com/manifest.h"
#include "platform/linux/com/socket_paths.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/doctor/bus.h"
#include "tools/posctl/way.h"

namespace posctl::doctor {

namespace {

using binding::Statistics;
using binding::Statistics_proxy;
using lumo::services::gnss::GNSS;
using lumo::services::gnss::proxy::GNSSProxy;

constexpr std::chrono::milliseconds observation{2000};
/// A service that is found later leaves no time for two looks.
constexpr std::chrono::milliseconds search_time{1700};
constexpr std::chrono::milliseconds answer_time{600};
/// The variables that decide where the application looks.
constexpr std::array inherited{"POS_MANIFEST",
                               "POS_STORAGE_DIR",
                               "STATE_DIRECTORY",
                               "XDG_STATE_HOME",
                               "HOME",
                               "POS_INITDATA_DIR",
                               "DLT_PIPE_DIR",
                               "POS_STATE_BUS",
                               "DBUS_SESSION_BUS_ADDRESS",
                               "XDG_RUNTIME_DIR",
                               "POS_TIME_BASE"};

void take_over_environment(const Program& application) {
  if (!application.environment) return;
  for (const char* name : inherited) {
    const auto* const value = application.variable(name);
    if (std::string_view(name) == "POS_MANIFEST") {
      if (std::getenv(name) == nullptr && !application.manifest.empty())
        ::setenv(name, application.manifest.c_str(), 1);
    } else if (value != nullptr) {
      ::setenv(name, value->c_str(), 1);
    } else {
      ::unsetenv(name);
    }
  }
}

Answers ask(Statistics_proxy& service, Deadline deadline) {
  auto process = service.Process();
  auto clock = service.Clock();
  auto peers = service.Peers();
  auto stamps = service.Stamps();
  auto counters = service.Counters();
  Answers answers;
  answers.process = result_of(std::move(process), Statistics::Process.name, deadline);
  answers.clock = result_of(std::move(clock), Statistics::Clock.name, deadline);
  answers.peers = result_of(std::move(peers), Statistics::Peers.name, deadline);
  answers.stamps = result_of(std::move(stamps), Statistics::Stamps.name, deadline);
  for (auto& [name, value] : result_of(std::move(counters), Statistics::Counters.name, deadline)) {
    answers.counters.emplace(std::move(name), value);
  }
  return answers;
}

/// Asks the application at the beginning and at the end.
void ask_twice(Facts& facts, Deadline start) try {
  const auto service = connect<Statistics_proxy>(Statistics::name, start + search_time);
  facts.before = ask(*service, start + search_time + answer_time);
  std::this_thread::sleep_until(start + observation);
  facts.after = ask(*service, start + observation + answer_time);
  // Counters of two runs of the application cannot be compared.
  if (facts.after->process.uptimeMs < facts.before->process.uptimeMs) facts.before.reset();
} catch (const std::exception& error) {
  facts.answer_error = error.what();
}

/// Receives the positions of the source itself.
void watch_positions(Facts& facts, Deadline start) try {
  using Proxy = ara::time::SlaveTimeBaseResourceProxy;
  constexpr std::size_t most = 4096;
  const auto clock = Proxy(Proxy::FindResource("synchronized")).asSynchSlave();
  std::vector<Received_positions> received;  // of the handler, until Unsubscribe() has returned
  const auto source = connect<GNSSProxy>(GNSS::name, start + search_time);
  source->positions.SetReceiveHandler([&] {
    source->positions.GetNewSamples([&](const auto& sample) {
      if (received.size() < most) received.push_back({*sample, clock.getCurrentTime()});
    });
  });
  source->positions.Subscribe(64);
  std::this_thread::sleep_until(start + observation);
  source->positions.Unsubscribe();
  facts.positions = std::move(received);
} catch (const std::exception&) {
  // The other facts say why there is no source.
}

/// A search that is sent to one node alone, which answers it whatever happens to multicast.
class Probing {
 public:
  Probing(const someip::Deployment& deployment,
          const someip::Address& own,
          const someip::Address& to,
          std::uint16_t service)
      : limit_(deployment.limits.entries_per_discovery_message), socket_(own) {
    if (socket_.bind({own, 0})) return;
    const someip::Socket_address address({to, deployment.discovery.port});
    if (::connect(socket_.descriptor(), address.data(), address.size()) != 0) return;
    someip::Entry entry;
    entry.service = service;
    entry.instance = someip::any_instance;
    entry.major_version = someip::any_major_version;
    entry.minor_version = someip::any_minor_version;
    entry.ttl = 1;
    someip::Discovery_writer writer;
    static_cast<void>(writer.add(entry, {}));
    const auto message = writer.message(1, true);
    static_cast<void>(::send(socket_.descriptor(), message.data(), message.size(), 0));
  }

  [[nodiscard]] int descriptor() const { return socket_.descriptor(); }
  void read() {
    // A receiving call would swallow the error.
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(socket_.descriptor(), SOL_SOCKET, SO_ERROR, &error, &size);
    if (error == ECONNREFUSED) result_ = Probe::refused;
    read_offers(socket_, limit_, socket_.local().address.is_v4(),
                [&](const auto&, const auto&) { result_ = Probe::answered; });
  }
  [[nodiscard]] Probe result() const { return result_; }

 private:
  const std::size_t limit_;
  someip::Udp_socket socket_;
  Probe result_ = Probe::silent;
};

void keep(std::vector<Received_offer>& offers,
          const someip::Instance_key& key,
          const Seen_offer& offer) {
  constexpr std::size_t most = 4096;
  if (offer.ttl == 0 || offers.size() >= most) return;
  const auto known = std::ranges::find_if(offers, [&](const Received_offer& one) {
    return one.key == key && one.offer.from == offer.from;
  });
  if (known == offers.end()) offers.push_back({key, offer});
}

const std::vector<someip::Address>& addresses_of(const someip::Deployment& deployment,
                                                 const std::string& node) {
  const auto found = std::ranges::find(deployment.nodes, node, &someip::Node_deployment::name);
  if (found == deployment.nodes.end()) {
    throw std::runtime_error(deployment.source + ": nodes: expected a node \"" + node + "\"");
  }
  return found->addresses;
}

/// To listen and to ask for offers, the address of another node serves too.
std::optional<someip::Address> any_address(const someip::Deployment& deployment,
                                           const std::string& node) {
  auto addresses = addresses_of(deployment, node);
  for (const auto& other : deployment.nodes)
    addresses.insert(addresses.end(), other.addresses.begin(), other.addresses.end());
  return own_address(addresses);
}

std::optional<someip::Address> address_of_source(const Facts& facts) {
  const auto* const wanted = facts.gnss();
  if (const auto* local = facts.program(Role::source)) {
    if (const auto* replaced = local->variable("POS_NODE_ADDRESS")) {
      boost::system::error_code error;
      const auto address = boost::asio::ip::make_address(*replaced, error);
      if (!error) return address;
    }
  }
  if (wanted == nullptr || wanted->instances.empty()) return std::nullopt;
  const auto& nodes = facts.deployment->nodes;
  const auto node =
      std::ranges::find(nodes, wanted->instances.front().node, &someip::Node_deployment::name);
  if (node == nodes.end() || node->addresses.empty()) return std::nullopt;
  return node->addresses.front();
}

std::uint64_t drops_of(const Facts& facts) {
  const auto address = facts.application_address();
  return address && address->is_v4() ? datagrams_dropped_at(address->to_v4().to_uint()) : 0;
}

/// Listens to service discovery until the observation ends.
void listen(Facts& facts, const std::string& node, Deadline start) try {
  const auto& deployment = *facts.deployment;
  const auto own = any_address(deployment, node);
  std::optional<Probing> probing;
  if (own && facts.source_address && facts.gnss() != nullptr)
    probing.emplace(deployment, *own, *facts.source_address, facts.gnss()->id);
  const Group_listener listener(deployment, node);
  // poll() ignores a negative descriptor.
  std::array<pollfd, 2> inputs{
      {{listener.descriptor(), POLLIN, 0}, {probing ? probing->descriptor() : -1, POLLIN, 0}}};
  for (auto now = Deadline::clock::now(); now < start + observation; now = Deadline::clock::now()) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(start + observation - now);
    ::poll(inputs.data(), inputs.size(), static_cast<int>(left.count()) + 1);
    listener.read([&](const auto& key, const auto& offer) { keep(facts.offers, key, offer); });
    if (probing) probing->read();
  }
  if (probing) facts.source_probe = probing->result();
} catch (const std::runtime_error& error) {
  facts.listen_error = error.what();
}

/// To the application on this machine, for a program without an address of its own.
std::unique_ptr<Way> way_through_socket() {
  for (const auto& path : tq::com::socket_paths_of(application_node)) {
    try {
      return std::make_unique<Way>(Way_options{.node = {}, .connect = path});
    } catch (const std::runtime_error&) {
      // Nobody listens there; the note about the missing address says the rest.
    }
  }
  return nullptr;
}

std::uint64_t restarts_of_service() {
  if (::access("/run/systemd/system", F_OK) != 0) return 0;
  const std::string text =
      output_of({"systemctl", "show", "pos.service", "--property=NRestarts", "--value"});
  return std::strtoull(text.c_str(), nullptr, 10);
}

}  // namespace

Facts look(const std::string& node) {
  const auto start = Deadline::clock::now();
  Facts facts;
  facts.programs = find_programs();
  if (const auto* application = facts.program(Role::application))
    take_over_environment(*application);
  try {
    facts.deployment = tq::com::load_deployment(node);
  } catch (const std::runtime_error& error) {
    facts.manifest_error = error.what();
  }
  const auto bus = ask_bus(start + observation);
  auto machine = std::async(std::launch::async, [&] {
    facts.filter = Packet_filter::read();
    facts.restarts = restarts_of_service();
  });
  if (facts.deployment) {
    const auto& addresses = addresses_of(*facts.deployment, node);
    facts.source_address = address_of_source(facts);
    facts.dropped_before = drops_of(facts);
    std::optional<mw::com::runtime::Component_singleton> runtime;
    std::unique_ptr<Way> socket;
    std::vector<std::future<void>> watchers;
    try {
      if (!own_address(addresses)) {
        throw std::runtime_error("this machine has no address of the node \"" + node + "\"");
      }
      runtime.emplace(node, false);
      watchers.push_back(std::async(std::launch::async, [&] { watch_positions(facts, start); }));
    } catch (const std::runtime_error& error) {
      facts.node_error = error.what();
      socket = way_through_socket();
    }
    if (runtime || socket)
      watchers.push_back(std::async(std::launch::async, [&] { ask_twice(facts, start); }));
    listen(facts, node, start);
    for (auto& watcher : watchers)
      watcher.wait();
    facts.dropped_after = drops_of(facts);
  }
  std::this_thread::sleep_until(start + observation);
  machine.wait();
  facts.bus = bus();
  facts.programs_later = find_programs();
  return facts;
}

}  // namespace posctl::doctor
