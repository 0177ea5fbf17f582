/// The component states of the application as a part of the page's data.
#pragma once

#include <memory>

#include "tools/posctl/serve/page_feed.h"

namespace posctl::serve {

/// Follows the bus from its construction to its destruction. Needs no runtime. Make one only: its
/// thread stays until the process ends.
class Component_watch {
 public:
  /// `feed` outlives the watch.
  explicit Component_watch(Page_feed& feed);
  ~Component_watch();
  Component_watch(const Component_watch&) = delete;
  Component_watch& operator=(const Component_watch&) = delete;

 private:
  struct Gate;
  const std::shared_ptr<Gate> gate_;
};

}  // namespace posctl::serve
