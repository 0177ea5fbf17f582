/// The application's side of platform health management.
#pragma once

#include <utility>

#include "ara/core/instance_specifier.h"

namespace ara::phm {

/// Identifies the supervised application instance.
class Phm_client {
 public:
  explicit Phm_client(core::InstanceSpecifier instance) : instance_(std::move(instance)) {}
  Phm_client(const Phm_client&) = delete;
  Phm_client& operator=(const Phm_client&) = delete;

  [[nodiscard]] const core::InstanceSpecifier& instance() const { return instance_; }

 private:
  core::InstanceSpecifier instance_;
};

}  // namespace ara::phm
