#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/printer.h"
#include "tools/posctl/time_base.h"
#include "tools/posctl/track/live_positions.h"
#include "tools/posctl/track/track_file.h"
#include "tools/stop_signal.h"

namespace posctl {
namespace {

using track::Format;
using track::Track_file;

/// A longer one is none of posctl watch.
constexpr std::size_t longest_line = std::size_t{1} << 20;

std::pair<Format, std::string> target(const Export_options& options) {
  std::optional<std::pair<Format, std::string>> found;
  for (const auto& [format, file] :
       {std::pair{Format::gpx, options.gpx}, std::pair{Format::kml, options.kml},
        std::pair{Format::csv, options.csv}, std::pair{Format::geojson, options.geojson}}) {
    if (file.empty()) continue;
    if (found) throw tools::Usage_error("export: one format at a time");
    found.emplace(format, file);
  }
  if (!found) throw tools::Usage_error("export: --gpx, --kml, --csv or --geojson FILE is expected");
  return *found;
}

/// The file, and what has not gone into it.
class Export {
 public:
  explicit Export(const std::pair<Format, std::string>& target)
      : name_{target.second}, file_{target.second, target.first} {}

  /// Nothing for a record without a place, which interrupts the track.
  std::optional<track::Point> point_of(const Json& record) {
    auto point = track::point_of(record, ahead_);
    if (point) return point;
    if (!is_stamp_only(record)) ++without_place_;
    file_.interrupt();
    return std::nullopt;
  }
  void add(const track::Point& point, const Json& record, int cancel) {
    file_.add(point, record, cancel);
    ++points_;
  }
  void skip_line() { ++other_lines_; }
  [[nodiscard]] std::uint64_t points() const { return points_; }

  void finish() {
    file_.finish();
    if (name_ == "-") return;
    std::string text = std::to_string(points_) + " positions in " + name_;
    if (without_place_ != 0) text += ", " + std::to_string(without_place_) + " had no coordinates";
    if (other_lines_ != 0) text += ", " + std::to_string(other_lines_) + " lines were no positions";
    tools::write_output(text + "\n");
  }

 private:
  const std::string name_;
  const std::chrono::nanoseconds ahead_ = time_base_ahead();
  Track_file file_;
  std::uint64_t points_ = 0, without_place_ = 0, other_lines_ = 0;
};

/// The lines of a file or pipe, until its end or a stop signal.
class Lines {
 public:
  /// Throws std::system_error.
  explicit Lines(const std::string& path)
      : path_{path},
        descriptor_{path == "-" ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC)} {
    if (descriptor_ < 0) fail();
  }
  ~Lines() {
    if (descriptor_ != STDIN_FILENO) ::close(descriptor_);
  }
  Lines(const Lines&) = delete;
  Lines& operator=(const Lines&) = delete;

  /// Nothing at the end. Throws std::system_error, and std::runtime_error for an endless line.
  std::optional<std::string> next(tools::Stop_signal& stop_signal) {
    for (;;) {
      if (const auto end = text_.find('\n'); end != std::string::npos) {
        std::string line = text_.substr(0, end);
        text_.erase(0, end + 1);
        return line;
      }
      if (text_.size() > longest_line) throw std::runtime_error(path_ + ": a line has no end");
      using Wake = tools::Stop_signal::Wake;
      if (stop_signal.wait_until(std::chrono::steady_clock::time_point::max(), descriptor_) ==
          Wake::stopped)
        return std::nullopt;
      std::array<char, 16384> block;
      const ssize_t count = ::read(descriptor_, block.data(), block.size());
      if (count < 0 && errno != EINTR && errno != EAGAIN) fail();
      if (count == 0) return std::nullopt;  // a last line without its end was cut
      if (count > 0) text_.append(block.data(), static_cast<std::size_t>(count));
    }
  }

 private:
  [[noreturn]] void fail() const {
    throw std::system_error(errno, std::generic_category(), "cannot read \"" + path_ + "\"");
  }

  const std::string path_;
  const int descriptor_;
  std::string text_;
};

void export_lines(const Export_options& options, Export& track, tools::Stop_signal& stop_signal) {
  Lines lines(options.from);
  while (const auto line = lines.next(stop_signal)) {
    const Json notification = Json::parse(*line, nullptr, false);
    const bool has_records = notification.is_object() && notification.contains("records") &&
                             notification["records"].is_array();
    if (!has_records || notification.value("field", Json("positions")) != "positions") {
      track.skip_line();
      continue;
    }
    for (const auto& record : notification["records"]) {
      if (!record.is_object()) continue;
      if (const auto point = track.point_of(record))
        track.add(*point, record, stop_signal.descriptor());
      if (options.count != 0 && track.points() >= options.count) return;
    }
  }
}

void export_live(const Export_options& options, Export& track, tools::Stop_signal& stop_signal) {
  on_the_way(options.way, [&] {
    Printer printer(options.count);
    track::Live_positions positions(options.position, [&](const Json& record) {
      if (const auto point = track.point_of(record))
        printer.print([&](int cancel) { track.add(*point, record, cancel); });
    });
    const bool timed_out = printer.wait(stop_signal, options.timeout);
    positions.stop();
    printer.check();
    track.finish();
    if (timed_out)
      track::check_positions(positions, options.timeout, printer.printed(), options.count);
  });
}

}  // namespace

int export_track(const Export_options& options) {
  const auto file = target(options);
  tools::Stop_signal stop_signal;  // before the runtime has threads
  Export track(file);
  if (!options.from.empty()) {
    export_lines(options, track, stop_signal);
    track.finish();
  } else {
    export_live(options, track, stop_signal);
  }
  return 0;
}

}  // namespace posctl
