/// Why a wanted service is missing or has no data: kept for the statistics and logged once, in
/// words.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/someip/discovery/discovery.h"
#include "platform/someip/node/node_context.h"

namespace someip {

/// The service's name, or its id if the deployment does not have it.
[[nodiscard]] std::string name_of(const Deployment& deployment, std::uint16_t service);
/// Such as "example::Lamp instance 1".
[[nodiscard]] std::string text_of(const Deployment& deployment, const Instance_key& key);

/// 0 if `to` is earlier; mw::com::runtime::never if it is Time::max().
[[nodiscard]] std::uint64_t milliseconds_between(Time from, Time to);

/// Remembers offers that do not fit and instances that were lost. Lives on the control thread. Its
/// owner reports only events of services for which the process searches.
class Causes {
 public:
  explicit Causes(const Node_context& context) : context_(context) {}

  void misfit_offered(const Misfit& misfit, Time now);
  void lost(const Instance_key& key, const Loss& loss, Time now);
  void available(const Instance_key& key, const Origin& from, Time now);
  void refused_by(const Origin& provider, const Instance_key& key, std::uint16_t event_group);

  /// Why no instance of the service is found, or why a found one cannot be used completely.
  [[nodiscard]] std::string why_missing(const Instance_key& wanted, Time since, Time now) const;
  [[nodiscard]] std::string why_incomplete(const Instance_key& found, Time now) const;
  /// When the last instance was lost; Time{} if none was.
  [[nodiscard]] Time lost_since(const Instance_key& wanted) const;

 private:
  struct Known_misfit {
    Misfit misfit;
    Time last;
  };
  struct Known_loss {
    Loss loss;
    Time when;
  };

  [[nodiscard]] std::string text_of_misfit(const Misfit& misfit) const;

  const Node_context& context_;
  std::map<std::uint16_t, std::vector<Known_misfit>> misfits_;  ///< by service, few of each
  std::map<Instance_key, Known_loss> losses_;  ///< not back yet; at most max_losses
};

}  // namespace someip
