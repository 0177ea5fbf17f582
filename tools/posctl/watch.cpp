#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "binding/codec.h"
#include "mw/com/statistics.h"
#include "posService/Positioning.h"
#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/notification_json.h"
#include "tools/posctl/position_table.h"
#include "tools/posctl/printer.h"
#include "tools/posctl/record_json.h"
#include "tools/posctl/terminal.h"
#include "tools/stop_signal.h"

namespace posctl {
namespace {

using lumo::services::positioning::Positioning;
using lumo::services::positioning::proxy::PositioningProxy;

template <class Records>
std::string line_of(std::string_view field, const Records& records, bool as_json) {
  const auto age = records.empty() ? std::nullopt : age_s(records.back());
  const Json json = notification_json(field, records, seconds_since_1970(), age);
  if (as_json) return json.dump();
  std::string line{field};
  if (json.contains("initial"))
    return line + (field == "positions" ? " (no position yet)" : " (nothing yet)");
  for (const auto& record : json["records"])
    line += ' ' + to_text(record);
  return line;
}

/// Prints notifications in one of the forms.
class View {
 public:
  View(const Watch_options& options, std::string_view output)
      : printer{options.count}, as_json_{output == "json"} {
    if (output != "table" && output != "wide") return;
    table_.emplace(output == "wide");
    printer.remark(table_->header());
  }

  template <class Records>
  void take(std::string_view field, const Records& records) {
    if (!table_ || field != "positions") {
      printer.print(line_of(field, records, as_json_));
      return;
    }
    for (const auto& record : records) {
      const Json json = to_json(record);
      if (is_stamp_only(json)) {
        printer.remark("no position yet");
        continue;
      }
      auto age_ms = age_s(record);
      if (age_ms) *age_ms *= 1000;
      auto rows = table_->rows(json, age_ms, std::chrono::steady_clock::now());
      const std::string row = std::move(rows.back());
      rows.pop_back();
      for (const auto& line : rows)
        printer.remark(line);
      printer.print(row);
    }
  }

  /// Says when nothing comes, and what is known about the service.
  void tick() {
    const auto silence = table_->silence(std::chrono::steady_clock::now());
    if (silence) printer.remark_at_once(*silence + "; " + state_of_the_service());
  }
  [[nodiscard]] bool is_table() const { return table_.has_value(); }

  Printer printer;

 private:
  static std::string state_of_the_service() {
    for (const auto& service : mw::com::runtime::peers().services) {
      if (service.service != Positioning::name) continue;
      if (!service.found) return service.cause;
      const std::string port =
          service.udpPort == 0 ? "" : " udp " + std::to_string(service.udpPort);
      return "still offered by " + service.address + port + ": posctl status says why";
    }
    return "the service is not looked for";
  }

  const bool as_json_;
  std::optional<Position_table> table_;
};

std::string missing(const Watch_options& options, std::uint64_t printed) {
  const std::string what =
      options.field.empty() ? "notifications" : "notifications of " + options.field;
  if (options.count != 0) {
    return std::to_string(printed) + " of " + std::to_string(options.count) + " " + what + " came";
  }
  return printed == 0 ? "the Positioning service sent no " + what : "";
}

void print_notifications(const Watch_options& options, tools::Stop_signal& stop_signal) {
  std::string output = options.output;
  if (output.empty()) output = is_terminal() ? "table" : "lines";
  View view(options, output);
  const std::string_view only =
      options.field.empty() && view.is_table() ? "positions" : std::string_view(options.field);
  std::atomic<bool> found = false;
  // Only the search's handler uses it until the search has ended.
  std::optional<PositioningProxy> proxy;

  const auto show = [&](auto& field, std::string_view name) {
    if (!only.empty() && only != name) return;
    field.SetReceiveHandler([&view, &field, name] {
      field.GetNewSamples([&](const auto& sample) { view.take(name, *sample); });
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

  std::function<void()> tick;
  if (view.is_table() && only == "positions") tick = [&view] { view.tick(); };
  const bool timed_out = view.printer.wait(stop_signal, options.timeout, tick);
  PositioningProxy::StopFindService(search);
  proxy.reset();
  view.printer.check();

  if (!timed_out) return;
  std::array<char, 48> after{};
  std::snprintf(after.data(), after.size(), "after %g s: ", options.timeout);
  if (!found)
    throw tools::No_answer(after.data() + std::string("no Positioning service was offered"));
  const auto text = missing(options, view.printer.printed());
  if (!text.empty()) throw std::runtime_error(after.data() + text);
}

}  // namespace

int watch(const Watch_options& options) {
  tools::Stop_signal stop_signal;  // before the runtime has threads
  on_the_way(options.way, [&] { print_notifications(options, stop_signal); });
  return 0;
}

}  // namespace posctl
