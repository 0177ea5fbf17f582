#include "tools/gnss-gateway/fix_publisher.h"

#include <cmath>

#include "tools/gnss-gateway/notification.h"

namespace gateway {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

std::optional<nanoseconds> Fix_publisher::since_last(const nmea::Fix& fix) const {
  if (fix.utc && last_.utc) return *fix.utc - *last_.utc;
  if (!fix.time_of_day || !last_.time_of_day) return std::nullopt;
  // Without a date, the shorter of the two intervals across midnight.
  auto interval = *fix.time_of_day - *last_.time_of_day;
  if (interval < -12h) interval += 24h;
  if (interval > 12h) interval -= 24h;
  return interval;
}

void Fix_publisher::publish(const nmea::Fix& fix) {
  if (output_.is_done()) return;
  if (!fix.supplement) {
    const auto interval = since_last(fix);
    if (interval && *interval > 0s && *interval <= 1500ms) {
      rate_ =
          static_cast<std::uint32_t>(std::llround(1e9 / static_cast<double>(interval->count())));
    }
    last_ = {fix.utc, fix.time_of_day};
    if (fix.present) ++(fix.valid ? result_.fixes : result_.without_fix);
  }
  output_.publish([&](Context context) {
    context.update_rate_hz = rate_;
    auto notification = to_notification(fix, context);
    known_.complete(notification, fix);
    return notification;
  });
}

}  // namespace gateway
