#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>

#include "platform/linux/com/manifest.h"
#include "platform/someip/base/hexadecimal.h"
#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/offers.h"
#include "tools/posctl/record_json.h"
#include "tools/stop_signal.h"

namespace posctl {
namespace {

using someip::Deployment;
using someip::Endpoint;
using someip::hexadecimal;
using someip::Instance_key;
using someip::Time;

/// More are not kept: a peer decides how many it offers.
constexpr std::size_t max_offers = 4096;

class Discovery_view {
 public:
  Discovery_view(const Deployment& deployment, const Discover_options& options, int cancel)
      : deployment_(deployment), options_(options), cancel_(cancel) {}

  void take(const Instance_key& key, const Seen_offer& offer) {
    const Key place{key, offer.from};
    const auto known = offers_.find(place);
    if (offer.ttl == 0) {
      if (known == offers_.end()) return;
      tell("withdrawn", place, known->second);
      offers_.erase(known);
      return;
    }
    if (known == offers_.end()) {
      if (offers_.size() >= max_offers) return;
      tell("offered", place, offer);
      offers_.emplace(place, offer);
      return;
    }
    if (!known->second.same(offer)) tell("changed", place, offer);
    known->second = offer;
  }

  void expire(Time now) {
    std::erase_if(offers_, [&](const auto& known) {
      if (known.second.expires > now) return false;
      tell("expired", known.first, known.second);
      return true;
    });
  }

  void print_all() const {
    if (options_.json) {
      Json json{{"schema", 1}, {"offers", Json::array()}};
      for (const auto& [key, offer] : offers_)
        json["offers"].push_back(json_of(key, offer));
      tools::write_output(json.dump() + "\n", cancel_);
      return;
    }
    std::string text = offers_.empty() ? "nothing is offered\n"
                                       : "service instance version  TTL  endpoints, name\n";
    for (const auto& [key, offer] : offers_)
      text += line_of(key, offer) + "\n";
    tools::write_output(text, cancel_);
  }

 private:
  struct Key {
    Instance_key instance;
    Endpoint from;
    friend bool operator<(const Key& a, const Key& b) {
      return a.instance != b.instance ? a.instance < b.instance : a.from < b.from;
    }
  };

  /// The service of the manifest; another version has the name too.
  [[nodiscard]] const someip::Service_deployment* service_of(const Key& key) const {
    const auto& services = deployment_.services;
    const auto found =
        std::ranges::find(services, key.instance.service, &someip::Service_deployment::id);
    return found == services.end() ? nullptr : &*found;
  }

  void tell(const char* event, const Key& key, const Seen_offer& offer) const {
    if (!options_.follow) return;
    if (options_.json) {
      Json json = json_of(key, offer);
      json["event"] = event;
      json["schema"] = 1;
      tools::write_output(json.dump() + "\n", cancel_);
    } else {
      std::array<char, 16> column{};
      std::snprintf(column.data(), column.size(), "%-9s ", event);
      tools::write_output(column.data() + line_of(key, offer) + "\n", cancel_);
    }
  }

  [[nodiscard]] Json json_of(const Key& key, const Seen_offer& offer) const {
    Json json{{"serviceId", hexadecimal(key.instance.service)},
              {"instance", hexadecimal(key.instance.instance)},
              {"majorVersion", key.instance.major_version},
              {"minorVersion", offer.minor_version},
              {"from", to_string(offer.from)}};
    if (offer.udp) json["udp"] = to_string(*offer.udp);
    if (offer.tcp) json["tcp"] = to_string(*offer.tcp);
    json["ttlS"] = offer.ttl == someip::endless_ttl ? Json() : Json(offer.ttl);
    const auto* const service = service_of(key);
    json["service"] = service == nullptr ? Json() : Json(service->name);
    if (service != nullptr && service->major_version != key.instance.major_version) {
      json["manifestMajorVersion"] = service->major_version;
    }
    return json;
  }

  [[nodiscard]] std::string line_of(const Key& key, const Seen_offer& offer) const {
    std::array<char, 96> text{};
    const std::string version =
        std::to_string(key.instance.major_version) + "." + std::to_string(offer.minor_version);
    const std::string ttl =
        offer.ttl == someip::endless_ttl ? "none" : std::to_string(offer.ttl) + " s";
    std::snprintf(text.data(), text.size(), "%s  %s   %-7s %5s  ",
                  hexadecimal(key.instance.service).c_str(),
                  hexadecimal(key.instance.instance).c_str(), version.c_str(), ttl.c_str());
    std::string line = text.data();
    if (offer.udp) line += to_string(*offer.udp) + " udp  ";
    if (offer.tcp) line += to_string(*offer.tcp) + " tcp  ";
    const auto* const service = service_of(key);
    if (service == nullptr) return line + "(not in the manifest)";
    line += service->name;
    if (service->major_version == key.instance.major_version) return line;
    return line + " (version " + std::to_string(service->major_version) + " in the manifest)";
  }

  const Deployment& deployment_;
  const Discover_options& options_;
  const int cancel_;  ///< readable when nothing more is to be written
  std::map<Key, Seen_offer> offers_;
};

}  // namespace

int discover(const Discover_options& options) {
  tools::Stop_signal stop_signal;
  const Deployment deployment = tq::com::load_deployment(options.node);
  Group_listener listener(deployment, options.node);
  Discovery_view view(deployment, options, stop_signal.descriptor());
  constexpr std::chrono::milliseconds period{100};  // between two looks for expired offers
  const auto end = options.seconds == 0
                       ? Time::max()
                       : Time::clock::now() + std::chrono::duration_cast<Time::duration>(
                                                  std::chrono::duration<double>(options.seconds));
  for (auto now = Time::clock::now(); now < end; now = Time::clock::now()) {
    const auto due = std::min(end, now + period);
    const auto wake = stop_signal.wait_until(due, listener.descriptor());
    if (wake == tools::Stop_signal::Wake::stopped) break;
    listener.read([&](const auto& key, const auto& offer) { view.take(key, offer); });
    view.expire(Time::clock::now());
  }
  if (!options.follow) view.print_all();
  return 0;
}

}  // namespace posctl
