#include <algorithm>
#include <atomic>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "binding/codec.h"
#include "posService/Positioning.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/printer.h"
#include "tools/posctl/record_json.h"
#include "tools/stop_signal.h"

namespace posctl {
namespace {

using lumo::services::positioning::proxy::PositioningProxy;

template <class Records>
std::string line_of(std::string_view field, const Records& records, bool as_json) {
  const Json list = to_json(records);
  const bool initial = std::ranges::all_of(list, is_stamp_only);
  if (as_json) {
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    Json json{{"field", field}, {"received", now.count()}, {"records", list}};
    if (initial) json["initial"] = true;
    return json.dump();
  }
  std::string line{field};
  if (initial) return line + " (no position yet)";
  for (const auto& record : list)
    line += ' ' + to_text(record);
  return line;
}

std::string missing(const Watch_options& options, bool found, std::uint64_t printed) {
  if (!found) return "no Positioning service was offered";
  const std::string what =
      options.field.empty() ? "notifications" : "notifications of " + options.field;
  if (options.count != 0) {
    return std::to_string(printed) + " of " + std::to_string(options.count) + " " + what + " came";
  }
  return printed == 0 ? "the Positioning service sent no " + what : "";
}

void print_notifications(const Watch_options& options, tools::Stop_signal& stop_signal) {
  Printer printer(options.count);
  std::atomic<bool> found = false;
  // Touched by the search's handler only, until that has ended.
  std::optional<PositioningProxy> proxy;

  const auto show = [&](auto& field, std::string_view name) {
    if (!options.field.empty() && options.field != name) return;
    field.SetReceiveHandler([&, name] {
      field.GetNewSamples(
          [&](const auto& sample) { printer.print(line_of(name, *sample, options.json)); });
    });
    field.Subscribe(64);
  };
  const auto search = PositioningProxy::StartFindService([&](const auto& handles, auto) {
    if (handles.empty()) {
      proxy.reset();
      return;
    }
    if (proxy) return;
    found = true;
    proxy.emplace(handles.front());
    show(proxy->positions, "positions");
    show(proxy->posMapInfo, "posMapInfo");
  });

  const bool timed_out = printer.wait(stop_signal, options.timeout);
  PositioningProxy::StopFindService(search);
  proxy.reset();
  printer.check();

  if (!timed_out) return;
  const auto text = missing(options, found, printer.printed());
  if (!text.empty()) throw std::runtime_error(text_after(options.timeout) + text);
}

}  // namespace

int watch(const Watch_options& options) {
  tools::Stop_signal stop_signal;  // before the runtime has threads
  on_the_way(options.way, [&] { print_notifications(options, stop_signal); });
  return 0;
}

}  // namespace posctl
