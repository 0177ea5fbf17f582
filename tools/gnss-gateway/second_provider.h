/// Another provider of the gateway's GNSS instance, at an address of its own.
#pragma once

#include <memory>
#include <string>

#include "tools/gnss-gateway/gnss_service.h"

namespace gateway {

/// Offers from its construction to its destruction.
class Second_provider {
 public:
  Second_provider() = default;
  Second_provider(const Second_provider&) = delete;
  Second_provider& operator=(const Second_provider&) = delete;
  virtual ~Second_provider() = default;

  virtual void update(const Encoded_instant& instant) = 0;
};

/// At one of the four addresses that follow the one of `node`. Throws std::runtime_error when none
/// of them can be used.
[[nodiscard]] std::unique_ptr<Second_provider> make_second_provider(const std::string& node);

}  // namespace gateway
