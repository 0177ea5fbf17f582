#include "platform/someip/node/causes.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>

#include "mw/com/statistics.h"
#include "platform/someip/base/hexadecimal.h"

namespace someip {

namespace {

constexpr std::size_t max_misfits = 8;
constexpr std::size_t max_losses = 64;
/// Lines of a kind in five seconds: enough for every service of one peer.
constexpr std::uint64_t burst = 16;
/// A misfit that has not been offered for this long is forgotten.
constexpr std::chrono::seconds misfit_memory{60};
/// A misfit offered within this time is a reason for the present state.
constexpr std::chrono::seconds recently{10};

std::string seconds_of(Time::duration duration) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f s",
                std::chrono::duration<double>(duration).count());
  return text.data();
}

const Service_deployment* service_of(const Deployment& deployment, std::uint16_t id) {
  const auto found = std::ranges::find(deployment.services, id, &Service_deployment::id);
  return found == deployment.services.end() ? nullptr : &*found;
}

std::string text_of(const Loss& loss) {
  switch (loss.cause) {
    case Loss::Cause::stop_offer:
      return "it has withdrawn its offer";
    case Loss::Cause::not_renewed:
      return "its offer was not renewed for " + seconds_of(loss.since_offer);
    case Loss::Cause::peer_restarted:
      return "it has restarted";
    case Loss::Cause::link_down:
      return "the node has lost its link";
    case Loss::Cause::moved:
      return "it has moved to another endpoint";
    case Loss::Cause::replaced:
      break;
  }
  return "the provider that delivered before is back";
}

}  // namespace

std::string name_of(const Deployment& deployment, std::uint16_t id) {
  const auto* const service = service_of(deployment, id);
  return service != nullptr ? service->name : "service " + hexadecimal(id);
}

std::string text_of(const Deployment& deployment, const Instance_key& key) {
  return name_of(deployment, key.service) + " instance " + std::to_string(key.instance);
}

std::uint64_t milliseconds_between(Time from, Time to) {
  if (to == Time::max()) return mw::com::runtime::never;
  return to <= from ? 0
                    : static_cast<std::uint64_t>(
                          std::chrono::duration_cast<Milliseconds>(to - from).count());
}

std::string Causes::text_of_misfit(const Misfit& misfit) const {
  const std::string offered = "is offered by " + to_string(misfit.origin.peer) + " ";
  switch (misfit.cause) {
    case Misfit::Cause::version: {
      const auto* const service = service_of(context_.deployment, misfit.key.service);
      const unsigned wanted = service != nullptr ? service->major_version : 0;
      return offered + "in version " + std::to_string(misfit.key.major_version) + ", version " +
             std::to_string(wanted) + " is needed";
    }
    case Misfit::Cause::no_udp:
      return offered + "without the UDP endpoint that its elements need";
    case Misfit::Cause::no_tcp:
      return offered + "without the TCP endpoint that its elements need";
    case Misfit::Cause::not_allowed:
      return offered + "which is not an allowed peer";
    case Misfit::Cause::unusable_endpoint:
      break;
  }
  return offered + "with an endpoint that cannot be used";
}

void Causes::misfit_offered(const Misfit& misfit, Time now) {
  auto& known = misfits_[misfit.key.service];
  std::erase_if(known, [&](const Known_misfit& one) { return now - one.last > misfit_memory; });
  const auto same = std::ranges::find_if(known, [&](const Known_misfit& one) {
    return one.misfit.cause == misfit.cause && one.misfit.key == misfit.key &&
           one.misfit.origin == misfit.origin;
  });
  if (same != known.end()) {
    same->last = now;
    return;
  }
  if (known.size() >= max_misfits) return;
  known.push_back({misfit, now});
  // Discovery itself logs the other two.
  if (misfit.cause == Misfit::Cause::not_allowed ||
      misfit.cause == Misfit::Cause::unusable_endpoint) {
    return;
  }
  context_.log.limited(Log_level::warning, "misfit",
                       text_of(context_.deployment, misfit.key) + " " + text_of_misfit(misfit),
                       burst);
}

void Causes::lost(const Instance_key& key, const Loss& loss, Time now) {
  // A peer decides how often: the text is made only if it is written.
  context_.log.limited(
      Log_level::warning, "lost",
      [&] {
        return text_of(context_.deployment, key) + " of " + to_string(loss.origin.peer) +
               " is lost: " + text_of(loss);
      },
      burst);
  losses_.insert_or_assign(key, Known_loss{loss, now});
  if (losses_.size() <= max_losses) return;
  losses_.erase(
      std::ranges::min_element(losses_, {}, [](const auto& one) { return one.second.when; }));
}

void Causes::available(const Instance_key& key, const Origin& from, Time now) {
  const auto loss = losses_.find(key);
  if (loss == losses_.end()) return;
  context_.log.limited(
      Log_level::info, "back",
      [&] {
        return text_of(context_.deployment, key) + " is back after " +
               seconds_of(now - loss->second.when) + ", from " + to_string(from.peer);
      },
      burst);
  losses_.erase(loss);
}

void Causes::refused_by(const Origin& provider,
                        const Instance_key& key,
                        std::uint16_t event_group) {
  context_.log.limited(Log_level::warning, "refused by",
                       to_string(provider.peer) + " refuses the subscription to event group " +
                           hexadecimal(event_group) + " of " + text_of(context_.deployment, key),
                       burst);
}

std::string Causes::why_missing(const Instance_key& wanted, Time since, Time now) const {
  const Known_loss* loss = nullptr;
  for (const auto& [key, one] : losses_) {
    if (matches(wanted, key) && (loss == nullptr || one.when > loss->when)) loss = &one;
  }
  if (const auto known = misfits_.find(wanted.service); known != misfits_.end()) {
    const auto latest = std::ranges::max_element(known->second, {}, &Known_misfit::last);
    if (latest != known->second.end() && now - latest->last < recently &&
        (loss == nullptr || latest->last > loss->when)) {
      return "it " + text_of_misfit(latest->misfit);
    }
  }
  return loss != nullptr ? "lost: " + text_of(loss->loss)
                         : "no offer seen for " + seconds_of(now - since);
}

std::string Causes::why_incomplete(const Instance_key& found, Time now) const {
  const auto known = misfits_.find(found.service);
  if (known == misfits_.end()) return {};
  const auto of_it = std::ranges::find_if(known->second, [&](const Known_misfit& one) {
    return one.misfit.key == found && now - one.last < recently;
  });
  return of_it == known->second.end() ? std::string{} : "it " + text_of_misfit(of_it->misfit);
}

Time Causes::lost_since(const Instance_key& wanted) const {
  Time latest{};
  for (const auto& [key, loss] : losses_) {
    if (matches(wanted, key)) latest = std::max(latest, loss.when);
  }
  return latest;
}

}  // namespace someip
