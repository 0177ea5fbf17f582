/// The status of the application as the page shows it.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "binding/statistics.h"
#include "tools/posctl/serve/page_feed.h"
#include "tools/posctl/serve/source_parts.h"

namespace posctl::serve {

/// Reads statuses, data bus faults and peers, and fills the feed with them, with the verdict, and
/// with each change. Lives on one thread.
class Status_watch {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Status_watch(Page_feed& feed) : feed_(feed) {}

  /// Asks the application. The feed receives the status if it has changed, and once a second.
  /// `figures` are the last statistics. Throws if the application does not answer.
  void look(binding::Statistics_proxy& service, const Json& figures, Clock::time_point now);
  /// The next status belongs to another run of the application: it is no change.
  void forget() { last_state_ = {}; }

 private:
  /// The verdict of posctl status.
  void add_verdict(Json& status, Json services, const Json& figures) const;
  void tell_changes(const Json& status);
  void tell_monitors(const binding::Diagnosis_state& state);

  Page_feed& feed_;
  Period verdict_period_{std::chrono::seconds(1)};
  Json last_status_;
  std::optional<binding::Diagnosis_state> last_state_;
};

/// Reports to a feed that the application has been running since `started_ms`, in milliseconds
/// since 1970; 0: not known.
void tell_application(Page_feed& feed, double started_ms);
/// Reports to a feed that no application answers. `text` is the reason.
void tell_no_application(Page_feed& feed, const std::string& text);

}  // namespace posctl::serve
