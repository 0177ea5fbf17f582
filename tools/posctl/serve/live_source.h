/// The running application as the source of the page's data.
#pragma once

#include <memory>
#include <string>

#include "tools/posctl/serve/page_feed.h"

namespace posctl::serve {

struct Live_options {
  std::string node;  ///< of the manifest, for service discovery
  /// What the page says while no gateway offers its faults; empty: the page does not show faults.
  std::string faults_absence;
};

/// Fills a feed from its construction to its destruction. It follows the application from one start
/// to the next. Needs the runtime.
class Live_source {
 public:
  /// `feed` outlives the source. Throws std::runtime_error for a manifest that cannot be used.
  Live_source(Page_feed& feed, const Live_options& options);
  ~Live_source();
  Live_source(const Live_source&) = delete;
  Live_source& operator=(const Live_source&) = delete;

  /// Any thread may call.
  [[nodiscard]] bool has_application() const;

 private:
  class Implementation;
  const std::unique_ptr<Implementation> implementation_;
};

}  // namespace posctl::serve
