#include "binding/statistics.h"

#include <stdexcept>
#include <utility>

#include "ara/log/levels.h"
#include "ara/log/recent.h"

namespace binding {
namespace {

template <class Value>
ara::core::Future<Value> ready(Value value) {
  ara::core::Promise<Value> promise;
  promise.set_value(std::move(value));
  return promise.get_future();
}

}  // namespace

Statistics_skeleton::Statistics_skeleton(Statistics_sources sources)
    : Skeleton_impl{ara::core::InstanceSpecifier("Statistics_ProvidedSomeipServiceInstance")},
      sources_{std::move(sources)} {
  using mw::com::cpp_binding::skeleton::provide;
  provide(core(), Statistics::Counters, [this] { return Counters(); });
  provide(core(), Statistics::Process, [this] { return Process(); });
  provide(core(), Statistics::Ages, [this] { return Ages(); });
  provide(core(), Statistics::Stamps, [this] { return Stamps(); });
  provide(core(), Statistics::Clock, [this] { return Clock(); });
  provide(core(), Statistics::Peers, [this] { return Peers(); });
  provide(core(), Statistics::Diagnosis, [this] { return Diagnosis(); });
  provide(core(), Statistics::Settings, [this] { return Settings(); });
  provide(core(), Statistics::LogLevels, [this] { return LogLevels(); });
  provide(core(), Statistics::SetLogLevel,
          [this](const Log_context_level& wanted) { return SetLogLevel(wanted); });
  provide(core(), Statistics::LogLines, [this](std::uint64_t from) { return LogLines(from); });
}

ara::core::Future<Statistics::Counters_result> Statistics_skeleton::Counters() {
  return ready(mw::com::runtime::counters());
}

ara::core::Future<Statistics::Process_result> Statistics_skeleton::Process() {
  return ready(mw::com::runtime::process_usage());
}

ara::core::Future<Statistics::Ages_result> Statistics_skeleton::Ages() {
  return ready(sources_.ages.ages());
}

ara::core::Future<Statistics::Stamps_result> Statistics_skeleton::Stamps() {
  return ready(sources_.ages.stamps());
}

ara::core::Future<Statistics::Clock_result> Statistics_skeleton::Clock() {
  return ready(sources_.clock.state());
}

ara::core::Future<Statistics::Peers_result> Statistics_skeleton::Peers() {
  return ready(mw::com::runtime::peers());
}

ara::core::Future<Diagnosis_state> Statistics_skeleton::Diagnosis() {
  return ready(sources_.diagnosis());
}

ara::core::Future<Statistics::Settings_result> Statistics_skeleton::Settings() {
  return ready(sources_.settings);
}

ara::core::Future<Statistics::Log_levels_result> Statistics_skeleton::LogLevels() {
  Statistics::Log_levels_result levels;
  for (const auto& [context, level] : ara::log::LevelsInForce())
    levels.push_back({context, std::string(ara::log::NameOf(level))});
  return ready(std::move(levels));
}

ara::core::Future<Statistics::Log_levels_result> Statistics_skeleton::SetLogLevel(
    const Log_context_level& wanted) {
  Statistics::Log_levels_result set;
  const auto level = ara::log::LevelNamed(wanted.level);
  if (level && ara::log::SetLevelOf(wanted.context, *level)) set.push_back(wanted);
  return ready(std::move(set));
}

ara::core::Future<Log_lines> Statistics_skeleton::LogLines(std::uint64_t from) {
  auto recent = ara::log::LinesFrom(from);
  Log_lines answer{recent.next, recent.lost, {}};
  for (auto& line : recent.lines) {
    answer.lines.push_back({line.time_us, std::string(ara::log::NameOf(line.level)),
                            std::move(line.context), std::move(line.text)});
  }
  return ready(std::move(answer));
}

std::unique_ptr<Statistics_skeleton> offer_statistics(Statistics_sources sources) {
  try {
    auto statistics = std::make_unique<Statistics_skeleton>(std::move(sources));
    statistics->OfferService();
    return statistics;
  } catch (const std::runtime_error&) {
    // The binding's trace record reports the failure; no function of the vehicle depends on this
    // service.
    return nullptr;
  }
}

}  // namespace binding
