#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <string>

#include "platform/linux/com/manifest.h"
#include "platform/someip/base/hexadecimal.h"
#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/offer_table.h"
#include "tools/stop_signal.h"

namespace posctl {
namespace {

using someip::Deployment;
using someip::hexadecimal;
using someip::Time;

/// More are not kept.
constexpr std::size_t max_offers = 4096;

class Discovery_view {
 public:
  Discovery_view(const Deployment& deployment, const Discover_options& options, int cancel)
      : options_(options),
        cancel_(cancel),
        table_(
            deployment, max_offers, [this](const char* event, const Key& key, const auto& offer) {
              tell(event, key, offer);
            }) {}

  [[nodiscard]] Offer_table& table() { return table_; }

  void print_all() const {
    if (options_.json) {
      tools::write_output(table_.json().dump() + "\n", cancel_);
      return;
    }
    std::string text = table_.offers().empty() ? "nothing is offered\n"
                                               : "service instance version  TTL  endpoints, name\n";
    for (const auto& [key, offer] : table_.offers())
      text += line_of(key, offer) + "\n";
    tools::write_output(text, cancel_);
  }

 private:
  using Key = Offer_table::Key;

  void tell(const char* event, const Key& key, const Seen_offer& offer) const {
    if (!options_.follow) return;
    if (options_.json) {
      Json json = table_.json_of(key, offer);
      json["event"] = event;
      json["schema"] = 1;
      tools::write_output(json.dump() + "\n", cancel_);
    } else {
      std::array<char, 16> column{};
      std::snprintf(column.data(), column.size(), "%-9s ", event);
      tools::write_output(column.data() + line_of(key, offer) + "\n", cancel_);
    }
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
    const auto* const service = table_.service_of(key);
    if (service == nullptr) return line + "(not in the manifest)";
    line += service->name;
    if (service->major_version == key.instance.major_version) return line;
    return line + " (version " + std::to_string(service->major_version) + " in the manifest)";
  }

  const Discover_options& options_;
  const int cancel_;  ///< readable when nothing more is to be written
  Offer_table table_;
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
    listener.read([&](const auto& key, const auto& offer) { view.table().take(key, offer); });
    view.table().expire(Time::clock::now());
  }
  if (!options.follow) view.print_all();
  return 0;
}

}  // namespace posctl
