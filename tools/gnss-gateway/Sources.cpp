#include "tools/gnss-gateway/Sources.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <optional>
#include <system_error>
#include <vector>

#include "tools/drive/Drive.h"
#include "tools/gnss-gateway/Records.h"
#include "tools/nmea/Reader.h"

namespace gateway {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;
using tools::Stop_signal;

/// A receiver that is silent for so long has told its instant completely.
constexpr auto silence = 100ms;
/// Between two instants that do not tell a time.
constexpr auto usual_interval = 1s;

/// Sends fixes, and finds the update rate from their times.
class Fix_publisher {
 public:
  explicit Fix_publisher(Output& output) : output_(output) {}

  /// How much later `fix` is than the one before; nothing when one of them does not say.
  [[nodiscard]] std::optional<nanoseconds> since_last(const nmea::Fix& fix) const {
    const auto time = time_of(fix);
    if (!time || !last_) return std::nullopt;
    return *time - *last_;
  }

  void publish(const nmea::Fix& fix) {
    const auto interval = since_last(fix);
    if (interval && *interval > 0s && *interval <= 1500ms) {
      rate_ =
          static_cast<std::uint32_t>(std::llround(1e9 / static_cast<double>(interval->count())));
    }
    last_ = time_of(fix);
    output_.publish([&](Context context) {
      context.update_rate_hz = rate_;
      return to_notification(fix, context);
    });
    ++(fix.valid ? result_.fixes : result_.without_fix);
  }

  /// The next fix is from another pass over the recording.
  void forget() { last_.reset(); }

  [[nodiscard]] Source_result& result() { return result_; }

 private:
  static std::optional<nanoseconds> time_of(const nmea::Fix& fix) {
    if (fix.utc) return fix.utc->time_since_epoch();
    return std::nullopt;
  }

  Output& output_;
  Source_result result_;
  std::optional<nanoseconds> last_;
  std::optional<std::uint32_t> rate_;
};

Source_result run_live(Input& input, Output& output) {
  Fix_publisher publisher(output);
  nmea::Reader reader;
  const auto sink = [&](const nmea::Fix& fix) { publisher.publish(fix); };
  while (true) {
    const auto wake = output.wait_until(steady_clock::now() + silence, input.descriptor());
    if (wake == Stop_signal::Wake::stopped) break;
    if (wake == Stop_signal::Wake::due) {
      reader.pause(sink);
      continue;
    }
    const auto bytes = input.read();
    if (!bytes) continue;
    if (bytes->empty()) {
      reader.finish(sink);
      break;
    }
    reader.feed(*bytes, sink);
  }
  publisher.result().nmea = reader.counters();
  return publisher.result();
}

Source_result run_recording(const Nmea_options& options, Input& input, Output& output) {
  Fix_publisher publisher(output);
  auto due = steady_clock::now();
  bool stopped = false;
  const auto send = [&](const nmea::Fix& fix) {
    if (stopped) return;
    const auto gap = std::clamp<nanoseconds>(publisher.since_last(fix).value_or(usual_interval), 0s,
                                             options.max_gap);
    if (publisher.result().fixes + publisher.result().without_fix > 0) {
      due += nanoseconds(std::llround(static_cast<double>(gap.count()) / options.speed_up));
    }
    stopped = output.wait_until(due) == Stop_signal::Wake::stopped;
    if (!stopped) publisher.publish(fix);
  };
  do {
    nmea::Reader reader;
    std::uint64_t before = output.notifications();
    while (!stopped) {
      const auto bytes = input.read();
      if (!bytes || bytes->empty()) break;
      reader.feed(*bytes, send);
    }
    if (!stopped) reader.finish(send);
    publisher.result().nmea += reader.counters();
    if (!stopped && output.notifications() == before) {
      throw std::runtime_error("\"" + options.path +
                               "\" holds no NMEA 0183 sentence of a GNSS receiver");
    }
    publisher.forget();
    input.rewind();
  } while (options.loop && !stopped);
  return publisher.result();
}

}  // namespace

Input::Input(const std::string& path)
    : path_(path),
      descriptor_(path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                              : open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC | O_NONBLOCK)) {
  if (descriptor_ < 0) fail();
}

Input::~Input() {
  close(descriptor_);
}

bool Input::is_recording() const {
  struct stat status {};
  if (fstat(descriptor_, &status) != 0) fail();
  return S_ISREG(status.st_mode);
}

std::optional<std::span<const std::byte>> Input::read() {
  ssize_t size = 0;
  do {
    size = ::read(descriptor_, buffer_.data(), buffer_.size());
  } while (size < 0 && errno == EINTR);
  if (size < 0 && errno == EAGAIN) return std::nullopt;
  if (size < 0) fail();
  return std::span(buffer_).first(static_cast<std::size_t>(size));
}

void Input::rewind() {
  if (lseek(descriptor_, 0, SEEK_SET) != 0) fail();
}

void Input::fail() const {
  throw std::system_error(errno, std::generic_category(), "cannot read \"" + path_ + "\"");
}

Source_result run_drive(const Drive_options& options, Output& output) {
  const drive::Course course;
  const auto interval = nanoseconds(std::llround(1e9 / options.rate_hz));
  const auto rate =
      static_cast<std::uint32_t>(std::max<long long>(std::llround(options.rate_hz), 1));
  Source_result result;
  const auto start = steady_clock::now();
  for (std::int64_t index = 0;; ++index) {
    const auto time = index * interval;
    if (output.wait_until(start + time) == Stop_signal::Wake::stopped) return result;
    const auto sample = course.sample(options.start + time);
    const auto sky = course.sky(options.start + time, options.satellites);
    output.publish([&](Context context) {
      context.update_rate_hz = rate;
      return to_notification(sample, sky, context);
    });
    ++(sample.fix != drive::Fix_type::none ? result.fixes : result.without_fix);
  }
}

Source_result run_nmea(const Nmea_options& options, Input& input, Output& output) {
  return input.is_recording() ? run_recording(options, input, output) : run_live(input, output);
}

}  // namespace gateway
