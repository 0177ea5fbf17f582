/// The running application as the source of the page's data.
#pragma once

#include <memory>
#include <string>

#include "tools/posctl/serve/action.h"
#include "tools/posctl/serve/page_feed.h"

namespace posctl::serve {

/// Fills a feed from its construction to its destruction. It follows the application from one start
/// to the next. Needs the runtime.
class Live_source {
 public:
  /// `feed` outlives the source. `node` of the manifest for service discovery.
  Live_source(Page_feed& feed, const std::string& node);
  ~Live_source();
  Live_source(const Live_source&) = delete;
  Live_source& operator=(const Live_source&) = delete;

 private:
  class Implementation;
  const std::unique_ptr<Implementation> implementation_;
};

/// Acts on the running application.
class Live_actor : public Actor {
 public:
  [[nodiscard]] std::string act(const Action& action) override;
};

}  // namespace posctl::serve
