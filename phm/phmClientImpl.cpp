#include "phm/phmClientImpl.h"

#include <chrono>
#include <cstdint>
#include <utility>

namespace phmClient {
namespace {

constexpr std::uint16_t supervised_entity = 6000;
constexpr std::uint16_t alive_checkpoint = 6000;

}  // namespace

phmClientImpl::phmClientImpl(ara::core::InstanceSpecifier application)
    : application_(std::move(application)),
      logger_(ara::log::CreateLogger("PHMC", "phmClientImpl class own logger")) {}

void phmClientImpl::init() {
  logger_.LogInfo() << "enter phmClientImpl::init()";
  // The timer is destroyed first: its calls must not meet an entity or a client being replaced.
  timer_.reset();
  supervision_entity_.reset();
  client_ = std::make_unique<ara::phm::Phm_client>(application_);
  supervision_entity_ = std::make_unique<ara::phm::SupervisionEntity>(*client_);
  timer_ = std::make_unique<Phm_timer>([this] { alive(); });
  timer_->start(std::chrono::milliseconds(1000), std::chrono::milliseconds::zero());
}

void phmClientImpl::stop() {
  if (timer_) timer_->stop();
}

void phmClientImpl::alive() const {
  logger_.LogVerbose() << "Alive checkpoint reached";
  supervision_entity_->CheckpointReached(supervised_entity, alive_checkpoint);
}

}  // namespace phmClient
