/// The faults of a gateway as a part of the page's data.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "ara/core/future.h"
#include "tools/gnss-gateway/fault_control.h"
#include "tools/posctl/serve/page_feed.h"
#include "tools/posctl/serve/source_parts.h"

namespace posctl::serve {

/// Follows the first gateway that offers gateway::FaultControl. One thread calls.
class Fault_watch {
 public:
  /// `feed` outlives the watch. The page shows `absence` while no gateway offers its faults.
  Fault_watch(Page_feed& feed, std::string absence);
  /// Call it some ten times a second. It never waits for the gateway.
  void look(std::chrono::steady_clock::time_point now);

 private:
  void begin();
  void lose(const std::string& reason);
  void take_answers();
  void tell(const std::vector<gateway::Planned_fault>& faults);

  Page_feed& feed_;
  const std::string absence_;
  Service<gateway::Fault_control_proxy> service_;
  Period period_;
  std::optional<std::vector<gateway::Known_fault>> kinds_;
  bool reported_kinds_ = false;
  std::optional<ara::core::Future<std::vector<gateway::Known_fault>>> kinds_answer_;
  std::optional<ara::core::Future<std::vector<gateway::Planned_fault>>> faults_answer_;
};

}  // namespace posctl::serve
