#include "platform/someip/node/pending_calls.h"

#include <algorithm>
#include <utility>

namespace someip {

std::optional<std::uint16_t> Pending_calls::add(Call& call) {
  const std::lock_guard lock(mutex_);
  if (calls_.size() >= std::min<std::size_t>(limit_, 0xFFFE)) return std::nullopt;
  do {
    if (++last_session_ == 0) last_session_ = 1;
  } while (calls_.contains(last_session_));
  calls_.emplace(last_session_, std::move(call));
  return last_session_;
}

std::optional<Pending_calls::Call> Pending_calls::take(const Header& response,
                                                       const Endpoint& from,
                                                       Transport transport) {
  const std::lock_guard lock(mutex_);
  const auto found = calls_.find(response.session);
  if (found == calls_.end()) return std::nullopt;
  const Call& call = found->second;
  if (call.service != response.service || call.method != response.method ||
      call.interface_version != response.interface_version || !(call.server == from) ||
      call.transport != transport) {
    return std::nullopt;
  }
  std::optional<Call> taken(std::move(found->second));
  calls_.erase(found);
  return taken;
}

std::vector<Pending_calls::Call> Pending_calls::take_if(
    const std::function<bool(const Call&)>& predicate) {
  std::vector<Call> taken;
  const std::lock_guard lock(mutex_);
  for (auto call = calls_.begin(); call != calls_.end();) {
    if (predicate(call->second)) {
      taken.push_back(std::move(call->second));
      call = calls_.erase(call);
    } else {
      ++call;
    }
  }
  return taken;
}

Time Pending_calls::next_deadline() const {
  const std::lock_guard lock(mutex_);
  Time next = Time::max();
  for (const auto& [session, call] : calls_)
    next = std::min(next, call.deadline);
  return next;
}

}  // namespace someip
