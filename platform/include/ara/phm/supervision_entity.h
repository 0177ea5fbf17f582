/// Alive supervision: a checkpoint reached in time proves that its thread is still running.
#pragma once

#include <cstdint>

#include "ara/phm/phm_client.h"

namespace ara::phm {

class SupervisionEntity {
 public:
  /// `client` must outlive the entity.
  explicit SupervisionEntity(Phm_client& client) : client_(client) {}
  SupervisionEntity(const SupervisionEntity&) = delete;
  SupervisionEntity& operator=(const SupervisionEntity&) = delete;

  /// Reports the alive checkpoint `checkpoint_id` of the supervised entity `entity_id`. Any thread
  /// may call; the call does not wait. Without supervision nothing happens. Throws
  /// std::runtime_error with the reason if the report cannot be sent.
  void CheckpointReached(std::uint16_t entity_id, std::uint16_t checkpoint_id) const;

 private:
  Phm_client& client_;
};

}  // namespace ara::phm
