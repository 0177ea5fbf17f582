#include "tools/posctl/track/live_positions.h"

#include <optional>
#include <stdexcept>
#include <utility>

#include "clients/GNSS.h"
#include "posService/Positioning.h"
#include "tools/command.h"
#include "tools/posctl/position_choice.h"
#include "tools/posctl/printer.h"

namespace posctl::track {

namespace {

using lumo::services::gnss::proxy::GNSSProxy;
using lumo::services::positioning::proxy::PositioningProxy;

}  // namespace

class Live_positions::Follower {
 public:
  Follower() = default;
  virtual ~Follower() = default;
  Follower(const Follower&) = delete;
  Follower& operator=(const Follower&) = delete;
};

template <class Proxy>
class Live_positions::Follower_of final : public Follower {
 public:
  Follower_of(Take take, std::atomic<bool>& found) : take_{std::move(take)} {
    search_ = Proxy::StartFindService([this, &found](const auto& handles, auto) {
      if (handles.empty()) {
        proxy_.reset();
        return;
      }
      if (proxy_) return;
      found = true;
      proxy_.emplace(handles.front());
      proxy_->positions.SetReceiveHandler([this] {
        proxy_->positions.GetNewSamples([this](const auto& records) {
          for (const auto& record : *records)
            take_(to_json(record));
        });
      });
      proxy_->positions.Subscribe(64);
    });
  }
  ~Follower_of() override { Proxy::StopFindService(search_); }
  Follower_of(const Follower_of&) = delete;
  Follower_of& operator=(const Follower_of&) = delete;

 private:
  const Take take_;
  std::optional<Proxy> proxy_;  ///< the search's handler alone uses it until the search has ended
  ara::com::FindServiceHandle search_{};
};

Live_positions::Live_positions(const std::string& position, Take take)
    : is_output_{position == output_position} {
  if (is_output_) {
    follower_ = std::make_unique<Follower_of<PositioningProxy>>(std::move(take), found_);
    return;
  }
  follower_ = std::make_unique<Follower_of<GNSSProxy>>(
      [position, take = std::move(take)](const Json& record) {
        if (record.value("positionType", Json()) == position) take(record);
      },
      found_);
}

Live_positions::~Live_positions() = default;

void Live_positions::stop() {
  follower_.reset();
}

void check_positions(const Live_positions& positions,
                     double timeout,
                     std::uint64_t came,
                     std::uint64_t enough) {
  if (!positions.found()) {
    throw tools::No_answer(text_after(timeout) + "no " + positions.service() +
                           " service was offered");
  }
  if (came == 0 || came < enough) {
    const std::string number =
        enough == 0 ? "no" : std::to_string(came) + " of " + std::to_string(enough);
    throw std::runtime_error(text_after(timeout) + number + " positions came");
  }
}

}  // namespace posctl::track
