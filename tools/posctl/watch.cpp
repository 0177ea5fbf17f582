#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>

#include "binding/codec.h"
#include "mw/com/runtime.h"
#include "posService/Positioning.h"
#include "tools/Stop_signal.h"
#include "tools/posctl/Commands.h"
#include "tools/posctl/Record_json.h"

namespace posctl {
namespace {

using lumo::services::positioning::proxy::PositioningProxy;
using std::chrono::steady_clock;
using Wake = tools::Stop_signal::Wake;

double seconds_since_epoch() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

class Watch {
 public:
  explicit Watch(const Watch_options& options)
      : options_(options), finished_(eventfd(0, EFD_CLOEXEC)) {
    if (finished_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  ~Watch() { close(finished_); }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  /// Fields may arrive on several workers at once.
  template <class Records>
  void print(std::string_view field, const Records& records) {
    if (!options_.field.empty() && options_.field != field) return;
    const Json list = to_json(records);
    std::string line;
    if (options_.json) {
      line = Json{{"field", field}, {"received", seconds_since_epoch()}, {"records", list}}.dump();
    } else {
      line = field;
      for (const auto& record : list)
        line += ' ' + to_text(record);
    }
    const std::lock_guard lock(mutex_);
    if (done()) return;
    ++count_;
    std::cout << line << std::endl;
    if (done()) eventfd_write(finished_, 1);
  }

  void found() {
    const std::lock_guard lock(mutex_);
    found_ = true;
  }

  /// A file descriptor that becomes readable when enough has come.
  [[nodiscard]] int finished() const { return finished_; }

  [[nodiscard]] std::string missing() const {
    const std::lock_guard lock(mutex_);
    if (!found_) return "no Positioning service was offered";
    const std::string what =
        options_.field.empty() ? "notifications" : "notifications of " + options_.field;
    if (options_.count == 0) return count_ == 0 ? "the Positioning service sent no " + what : "";
    return std::to_string(count_) + " of " + std::to_string(options_.count) + " " + what + " came";
  }

 private:
  [[nodiscard]] bool done() const { return options_.count != 0 && count_ >= options_.count; }

  const Watch_options& options_;
  const int finished_;
  mutable std::mutex mutex_;  ///< guards the members below and standard output
  std::uint64_t count_ = 0;
  bool found_ = false;
};

template <class Field>
void subscribe(Field& field, std::string_view name, Watch& watch) {
  field.SetReceiveHandler([&field, name, &watch] {
    field.GetNewSamples([&](const auto& sample) { watch.print(name, *sample); });
  });
  field.Subscribe(64);
}

}  // namespace

int watch(const Watch_options& options) {
  tools::Stop_signal stop_signal;
  const mw::com::runtime::Component_singleton runtime(options.node, false);
  Watch state(options);
  // Touched by the search's handler only, until that has ended.
  std::optional<PositioningProxy> proxy;
  const auto search = PositioningProxy::StartFindService([&](const auto& handles, auto) {
    if (handles.empty()) {
      proxy.reset();
      return;
    }
    if (proxy) return;
    state.found();
    proxy.emplace(handles.front());
    subscribe(proxy->positions, "positions", state);
    subscribe(proxy->posMapInfo, "posMapInfo", state);
  });

  auto end = steady_clock::time_point::max();
  if (options.timeout > 0) {
    end = steady_clock::now() + std::chrono::duration_cast<steady_clock::duration>(
                                    std::chrono::duration<double>(options.timeout));
  }
  const bool timed_out = stop_signal.wait_until(end, state.finished()) == Wake::due;
  PositioningProxy::StopFindService(search);
  proxy.reset();

  if (!timed_out) return 0;
  const auto missing = state.missing();
  if (missing.empty()) return 0;
  std::fprintf(stderr, "posctl: after %g s: %s\n", options.timeout, missing.c_str());
  return 1;
}

}  // namespace posctl
