/// Actions of the page on the running system.
#pragma once

#include <functional>
#include <mutex>
#include <string>

#include "tools/posctl/serve/action.h"

namespace posctl::serve {

/// Acts on the running application and on the gateway.
class Live_actor : public Actor {
 public:
  [[nodiscard]] std::string act(const Action& action) override;
  /// Calls `change`, which may replace the runtime, unless an action uses it. `change` returns why
  /// there is no runtime; empty: there is one.
  void change_way(const std::function<std::string()>& change);

 private:
  std::mutex mutex_;  ///< guards the runtime and the member below
  std::string problem_;
};

}  // namespace posctl::serve
