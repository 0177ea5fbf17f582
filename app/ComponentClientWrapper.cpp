#include "app/ComponentClientWrapper.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "app/application_instance.h"

namespace {

constexpr const char* prepare_shutdown = "kPrepSD";
constexpr const char* on_state = "kOn";

constexpr std::uint32_t accepted = 0;
constexpr std::uint32_t refused = 1;

}  // namespace

ComponentClientWrapper::ComponentClientWrapper(Persistency* persistency, PrepareCallback prepare)
    : logger_(ara::log::CreateLogger("CCSW", "ComponentClietWrapper class own context")),
      persistency_(persistency),
      prepareCallback_(std::move(prepare)) {
  // The first request may arrive before the client is set; it waits for the lock.
  const std::lock_guard lock(mutex_);
  client_ =
      ara::stm::createComponentClient(ara::core::InstanceSpecifier(application_instance),
                                      [this](const std::string& newState, std::uint32_t seqNum) {
                                        componentStateChangeRequest(newState, seqNum);
                                      });
}

ComponentClientWrapper::~ComponentClientWrapper() {
  waitForPreparation();
  std::unique_ptr<ara::stm::ComponentClient> client;
  {
    const std::lock_guard lock(mutex_);
    client = std::move(client_);
  }
  client.reset();        // waits for a request under way, which needs the lock
  waitForPreparation();  // started by such a request
  persistency_->setCallback({});
}

void ComponentClientWrapper::componentStateChangeRequest(const std::string& newState,
                                                         std::uint32_t seqNum) {
  logger_.LogInfo() << "componentStateChangeRequest newState = " << newState
                    << " seqNum = " << seqNum;
  const std::lock_guard lock(mutex_);
  if (newState != prepare_shutdown) {
    if (newState == on_state && state_ == State::on) {
      confirm(seqNum, newState, accepted);
      return;
    }
    switchOn(seqNum, newState);
    return;
  }
  switch (state_) {
    case State::on:
      if (prepareCallback_ && isOwnerReady()) {
        finishPreparation(seqNum);
      } else {
        startPreparation(seqNum);
      }
      break;
    case State::transition_pending:
      confirm(seqNum, newState, refused);
      break;
    case State::prepared_for_shutdown:
      confirm(seqNum, newState, accepted);
      break;
  }
}

void ComponentClientWrapper::switchOn(std::uint32_t seqNum, const std::string& newState) {
  if (state_ == State::transition_pending) persistency_->setCallback({});
  persistency_->setStoringAllowed(true);
  state_ = State::on;
  wakePreparation();
  confirm(seqNum, newState, accepted);
}

void ComponentClientWrapper::finishPreparation(std::uint32_t seqNum) {
  persistency_->setStoringAllowed(false);
  state_ = State::prepared_for_shutdown;
  confirm(seqNum, prepare_shutdown, accepted);
}

void ComponentClientWrapper::startPreparation(std::uint32_t seqNum) {
  persistency_->setCallback([this] { wakePreparation(); });
  state_ = State::transition_pending;
  preparedSeqNum_ = seqNum;
  deadline_ = Clock::now() + wait_limit;
  seenWakes_ = wakes();
  if (preparing_) return;
  try {
    preparation_ = std::async(std::launch::async, &ComponentClientWrapper::prepare, this);
    preparing_ = true;
  } catch (const std::exception& error) {
    // No thread is available: the next request tries again.
    logger_.LogError() << "Error in the preparation for shutdown:" << error.what();
    persistency_->setCallback({});
    state_ = State::on;
    confirm(seqNum, prepare_shutdown, refused);
  }
}

void ComponentClientWrapper::prepare() {
  std::unique_lock lock(mutex_);
  while (state_ == State::transition_pending) {
    const auto deadline = deadline_;
    const auto seen = seenWakes_;
    lock.unlock();
    const auto wakes = waitForWake(seen, std::min(deadline, Clock::now() + ask_period));
    lock.lock();
    if (state_ != State::transition_pending || deadline_ != deadline) continue;  // a newer request
    seenWakes_ = wakes;
    const bool ready = prepareCallback_ ? isOwnerReady() : wakes != seen;
    if (ready || Clock::now() >= deadline) finishPreparation(preparedSeqNum_);
  }
  preparing_ = false;
}

bool ComponentClientWrapper::isOwnerReady() {
  std::string failure;
  try {
    return prepareCallback_();
  } catch (const std::exception& error) {
    failure = error.what();
  } catch (...) {
    failure = "unknown exception";
  }
  logger_.LogError() << "Error in the preparation for shutdown:" << failure;
  return false;
}

std::uint64_t ComponentClientWrapper::wakes() {
  const std::lock_guard lock(wakeMutex_);
  return wakes_;
}

std::uint64_t ComponentClientWrapper::waitForWake(std::uint64_t seen, Clock::time_point time) {
  std::unique_lock lock(wakeMutex_);
  wake_.wait_until(lock, time, [&] { return wakes_ != seen; });
  return wakes_;
}

void ComponentClientWrapper::wakePreparation() {
  {
    const std::lock_guard lock(wakeMutex_);
    ++wakes_;
  }
  wake_.notify_one();
}

void ComponentClientWrapper::waitForPreparation() {
  std::future<void> preparation;
  {
    const std::lock_guard lock(mutex_);
    preparation = std::move(preparation_);
  }
  if (preparation.valid()) preparation.wait();
}

void ComponentClientWrapper::confirm(std::uint32_t seqNum,
                                     const std::string& newState,
                                     std::uint32_t result) {
  if (client_) client_->confirm(seqNum, newState, result);
}
