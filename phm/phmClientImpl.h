/// The application's side of the alive supervision.
#pragma once

#include <memory>

#include "ara/core/instance_specifier.h"
#include "ara/log/logger.h"
#include "ara/phm/phm_client.h"
#include "ara/phm/supervision_entity.h"
#include "phm/phm_timer.h"

namespace phmClient {

/// Reports one alive checkpoint per second from init() to stop(). One thread calls both.
class phmClientImpl {
 public:
  /// `application` is the process's name for health management.
  explicit phmClientImpl(ara::core::InstanceSpecifier application);
  phmClientImpl(const phmClientImpl&) = delete;
  phmClientImpl& operator=(const phmClientImpl&) = delete;

  /// Reports the first checkpoint at once. A further call stops and replaces the running
  /// supervision. Throws the exceptions of the platform's health management; then nothing runs.
  void init();

  /// Takes up to one second, for the timer's current period. No effect before init().
  void stop();

 private:
  void alive() const;

  const ara::core::InstanceSpecifier application_;
  ara::log::Logger& logger_;
  std::unique_ptr<ara::phm::Phm_client> client_;
  std::unique_ptr<ara::phm::SupervisionEntity> supervision_entity_;
  std::unique_ptr<Phm_timer> timer_;  ///< last: its calls use the entity
};

}  // namespace phmClient
