#include "mw/com/runtime.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <span>
#include <stdexcept>
#include <utility>

#include "ara/log/logger.h"
#include "mw/com/static_thread_pool.h"
#include "platform/linux/com/element_ids.h"
#include "platform/linux/com/loop.h"
#include "platform/linux/com/make_runtime.h"
#include "platform/linux/com/manifest.h"
#include "platform/linux/com/search_results.h"
#include "platform/linux/com/socket_paths.h"
#include "platform/linux/com/someip_consumer.h"
#include "platform/linux/com/someip_provider.h"
#include "platform/linux/core/application.h"
#include "platform/someip/node/node.h"

namespace tq::com {

namespace {

void write_log(someip::Log_level level, const std::string& text) {
  static ara::log::Logger& logger = ara::log::CreateLogger("SIPR", "SOME/IP runtime");
  switch (level) {
    case someip::Log_level::warning:
      logger.LogWarn() << text;
      break;
    case someip::Log_level::info:
      logger.LogInfo() << text;
      break;
  }
}

class Someip_runtime final : public Runtime {
 public:
  Someip_runtime(someip::Deployment deployment, const std::string& node)
      : deployment_(std::move(deployment)),
        node_deployment_(find_node(deployment_, node)),
        pool_(node_deployment_.workers),
        node_(deployment_, node_deployment_, pool_.loop(), write_log) {}

  ~Someip_runtime() override {
    std::map<Find_token, std::shared_ptr<Search_results>> searches;
    {
      const std::lock_guard lock(mutex_);
      searches.swap(searches_);
    }
    for (const auto& [token, search] : searches)
      search->close();
    node_.stop();
    pool_.stop();
  }

  void require(std::string_view service, std::span<const Element> elements) const override {
    require_elements(find_service(service), elements, deployment_.source);
  }

  Find_token start_find_service(std::string_view service,
                                std::optional<std::uint16_t> instance,
                                Find_handler handler) override {
    const auto& deployed = find_service(service);
    auto search = std::make_shared<Search_results>(deployed, std::move(handler), pool_.loop());
    Find_token token{};
    {
      const std::lock_guard lock(mutex_);
      token = Find_token{++last_token_};
      searches_.emplace(token, search);
    }
    node_.client().searches().start(deployed, instance.value_or(someip::any_instance),
                                    std::move(search));
    return token;
  }

  void stop_find_service(Find_token token) override {
    std::shared_ptr<Search_results> search;
    {
      const std::lock_guard lock(mutex_);
      const auto found = searches_.find(token);
      if (found == searches_.end()) return;
      search = std::move(found->second);
      searches_.erase(found);
    }
    node_.client().searches().stop(search);
    search->close();
  }

  std::unique_ptr<Consumer> connect(const Found_instance& instance) override {
    if (!instance.where) throw std::logic_error("connect: an instance that no search has found");
    return std::make_unique<Someip_consumer>(instance.where, node_, pool_.loop(),
                                             deployment_.limits);
  }

  std::unique_ptr<Provider> provide(std::string_view service, std::string_view specifier) override {
    const auto& deployed = find_service(service);
    const auto found =
        std::ranges::find(deployed.instances, specifier, &someip::Instance_deployment::specifier);
    if (found == deployed.instances.end()) {
      throw std::runtime_error(deployment_.source + ": services." + deployed.name +
                               ".instances: none has the specifier \"" + std::string(specifier) +
                               "\"");
    }
    if (!node_deployment_.through.empty()) {
      throw std::runtime_error("a node that uses the Unix socket " + node_deployment_.through +
                               " provides no service");
    }
    if (found->node != node_deployment_.name) {
      throw std::runtime_error(deployment_.source + ": services." + deployed.name +
                               ".instances: \"" + found->specifier + "\" belongs to node \"" +
                               found->node + "\", this is node \"" + node_deployment_.name + "\"");
    }
    return std::make_unique<Someip_provider>(deployed, *found, node_, deployment_.source);
  }

  std::vector<std::pair<std::string_view, std::uint64_t>> counters() const override {
    std::vector<std::pair<std::string_view, std::uint64_t>> result;
    result.reserve(std::size(someip::counter_names));
    for (const auto& [name, counter] : someip::counter_names) {
      result.emplace_back(name, (node_.counters().*counter).value());
    }
    return result;
  }

  mw::com::runtime::Peers peers() override { return node_.peers(); }

 private:
  static const someip::Node_deployment& find_node(const someip::Deployment& deployment,
                                                  const std::string& name) {
    const auto found = std::ranges::find(deployment.nodes, name, &someip::Node_deployment::name);
    if (found == deployment.nodes.end()) {
      throw std::runtime_error(deployment.source + ": nodes: expected a node \"" + name + "\"");
    }
    return *found;
  }

  const someip::Service_deployment& find_service(std::string_view name) const {
    const auto found =
        std::ranges::find(deployment_.services, name, &someip::Service_deployment::name);
    if (found == deployment_.services.end()) {
      throw std::runtime_error(deployment_.source + ": services: \"" + std::string(name) +
                               "\" is not deployed");
    }
    return *found;
  }

  const someip::Deployment deployment_;
  const someip::Node_deployment& node_deployment_;
  mw::com::static_thread_pool pool_;
  someip::Node node_;
  std::mutex mutex_;  ///< guards the members below
  std::uint64_t last_token_ = 0;
  std::map<Find_token, std::shared_ptr<Search_results>> searches_;
};

/// The runtime of a passive process: it refuses every use.
class Passive_runtime final : public Runtime {
 public:
  void require(std::string_view, std::span<const Element>) const override { refuse(); }
  Find_token start_find_service(std::string_view,
                                std::optional<std::uint16_t>,
                                Find_handler) override {
    refuse();
  }
  void stop_find_service(Find_token) override {}
  std::unique_ptr<Consumer> connect(const Found_instance&) override { refuse(); }
  std::unique_ptr<Provider> provide(std::string_view, std::string_view) override { refuse(); }
  std::vector<std::pair<std::string_view, std::uint64_t>> counters() const override { return {}; }
  mw::com::runtime::Peers peers() override { return {}; }

 private:
  [[noreturn]] static void refuse() {
    throw std::logic_error("the communication middleware of this process is passive");
  }
};

/// The process's runtime; set and cleared by Component_singleton.
std::atomic<Runtime*> the_runtime{nullptr};

}  // namespace

std::unique_ptr<Runtime> make_runtime(someip::Deployment deployment, const std::string& node) {
  const auto found = std::ranges::find(deployment.nodes, node, &someip::Node_deployment::name);
  if (found != deployment.nodes.end() && found->local_socket && found->socket_path.empty()) {
    found->socket_path = own_socket_path(node);
  }
  return std::make_unique<Someip_runtime>(std::move(deployment), node);
}

std::unique_ptr<Runtime> make_local_runtime(someip::Deployment deployment,
                                            const std::string& node,
                                            const std::string& path) {
  const auto found = std::ranges::find(deployment.nodes, node, &someip::Node_deployment::name);
  if (found != deployment.nodes.end()) {
    found->through = path;
    found->addresses = {someip::local_address(1, deployment.discovery.multicast_address.is_v4())};
  }
  // Offers and subscriptions end with the connection, not with a time to live.
  deployment.discovery.subscribe_ttl = someip::endless_ttl;
  deployment.discovery.longest_offer_ttl = someip::endless_ttl;
  return std::make_unique<Someip_runtime>(std::move(deployment), node);
}

Runtime& Runtime::instance() {
  Runtime* const runtime = the_runtime.load();
  if (runtime == nullptr) {
    throw std::logic_error("the communication middleware is used without a Component_singleton");
  }
  return *runtime;
}

}  // namespace tq::com

namespace mw::com::runtime {

namespace {

/// Blocks from this size on go back to the system when they are freed: those that a single long
/// message may need once. Left alone, glibc takes each freed block of this size as a sign of more
/// to come, and keeps tens of megabytes.
constexpr int given_back_bytes = 1 << 20;

[[noreturn]] void refuse_second() {
  throw std::logic_error("there is a Component_singleton already");
}

std::unique_ptr<tq::com::Runtime> make_only_runtime(const std::string& name, bool passive) {
  // Before the runtime finds its address taken.
  if (tq::com::the_runtime.load() != nullptr) refuse_second();
  const std::string node = name.empty() ? std::string(ara::core::application().node) : name;
  auto deployment = tq::com::load_deployment(node);
#ifdef M_MMAP_THRESHOLD
  ::mallopt(M_MMAP_THRESHOLD, given_back_bytes);
#endif
  if (passive) return std::make_unique<tq::com::Passive_runtime>();
  return tq::com::make_runtime(std::move(deployment), node);
}

}  // namespace

Component_singleton::Component_singleton(const std::string& name, bool passive)
    : Component_singleton(make_only_runtime(name, passive)) {}

Component_singleton::Component_singleton(std::unique_ptr<tq::com::Runtime> runtime)
    : runtime_(std::move(runtime)) {
  tq::com::Runtime* none = nullptr;
  if (!tq::com::the_runtime.compare_exchange_strong(none, runtime_.get())) refuse_second();
}

Component_singleton::~Component_singleton() {
  tq::com::the_runtime.store(nullptr);
}

}  // namespace mw::com::runtime
