#include "platform/linux/log/backend.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "ara/log/levels.h"
#include "platform/linux/core/application.h"

namespace ara::log {
namespace {

/// The id of the default context until InitLogging names the application.
constexpr std::string_view unnamed = "DFLT";

void check_id(std::string_view what, std::string_view id) {
  const auto printable = [](char c) { return c > 0x20 && c < 0x7f; };
  if (id.empty() || id.size() > 4 || !std::all_of(id.begin(), id.end(), printable)) {
    throw std::invalid_argument(std::string(what) + " \"" + std::string(id.substr(0, 64)) +
                                "\": expected 1 to 4 printable ASCII characters without blanks");
  }
}

constexpr std::string_view levels_variable = "LOG_LEVEL";

}  // namespace

Backend& Backend::instance() {
  static auto* instance = new Backend;  // NOLINT(cppcoreguidelines-owning-memory): lives to the end
  return *instance;
}

Backend::Backend()
    : settings_(Level_settings::parse(core::variable(levels_variable))),
      // At exit, each sink closes before the library or the thread behind it ends.
      dlt_(*new Dlt_sink([] { instance().dlt_.close(); })),
      text_(*new Text_sink([] { instance().text_.close(); })),
      recent_(*new Recent_ring) {
  default_.store(&add(std::string(unnamed), "default context", std::nullopt));
}

void Backend::init(std::string_view app_id,
                   std::string_view description,
                   LogLevel default_level,
                   LogMode mode) {
  check_id("application id", app_id);
  {
    const std::lock_guard lock(mutex_);
    if (!std::exchange(initialised_, true)) {
      application_ = app_id;
      default_level_ = default_level;
      if (auto* named = find(app_id); named != nullptr) {
        default_.store(named, std::memory_order_release);
      } else {
        find(unnamed)->id = app_id;
      }
      for (auto* context = contexts(); context != nullptr; context = context->next) {
        context->logger.SetLevel(level_for(*context));
      }
      dlt_.configure(app_id, description);
      text_.configure(app_id);
      mode_ = mode;
      set_modes();
      // Connects now if there is a daemon, so that the first message need not.
      if (Has(mode, LogMode::kRemote)) (void)dlt_.ready(contexts());
      if (settings_.complaint.empty()) return;
    }
  }
  if (settings_.complaint.empty()) {
    default_logger().LogWarn() << "InitLogging was called again and ignored";
  } else {
    default_logger().LogWarn()
        << "environment variable " + core::variable_name(levels_variable) + ": ignored"
        << settings_.complaint
        << "- expected a level or CTXT=level, separated by commas; levels are"
        << "off, fatal, error, warn, info, debug, verbose";
  }
}

Logger& Backend::create(std::string_view id,
                        std::string_view description,
                        std::optional<LogLevel> level) {
  check_id("log context id", id);
  const std::lock_guard lock(mutex_);
  if (auto* known = find(id); known != nullptr) return known->logger;
  auto& context = add(std::string(id), std::string(description), level);
  dlt_.register_context(context);
  return context.logger;
}

Context* Backend::find(std::string_view id) const {
  auto* context = contexts();
  while (context != nullptr && context->id != id)
    context = context->next;
  return context;
}

Context& Backend::add(std::string id, std::string description, std::optional<LogLevel> level) {
  auto* context = new Context(std::move(id), std::move(description), level);
  context->logger.SetLevel(level_for(*context));
  context->next = contexts_.load(std::memory_order_relaxed);
  contexts_.store(context, std::memory_order_release);
  return *context;
}

LogLevel Backend::level_for(const Context& context) const {
  const auto entry = settings_.contexts.find(context.id);
  if (entry != settings_.contexts.end()) return entry->second;
  return context.own_level.value_or(settings_.general.value_or(default_level_));
}

void Backend::submit(Context& context, LogLevel level, Arguments arguments) noexcept {
  try {
    if (recent_.wants(level)) recent_.add(level, context.id, arguments.text());
    const LogMode modes = modes_.load(std::memory_order_acquire);
    const bool remote = Has(modes, LogMode::kRemote);
    const bool sent = remote && send_to_daemon(context, level, arguments);
    if (Has(modes, LogMode::kConsole) || (remote && !sent)) {
      text_.write(format_line(level, application_, context.id, arguments.text()));
    } else if (!remote) {
      std::shared_ptr<const Diversion> diversion;
      {
        const std::lock_guard lock(mutex_);
        diversion = diversion_;
      }
      if (diversion != nullptr) (*diversion)(level, context.id, arguments);
    }
  } catch (
      ...) {  // NOLINT(bugprone-empty-catch): no memory for a log line; the application goes on
  }
}

bool Backend::send_to_daemon(Context& context, LogLevel level, Arguments arguments) {
  const auto [ready, change] = dlt_.ready(contexts());
  if (change == Dlt_sink::Change::lost) {
    text_.write(format_line(LogLevel::kWarn, application_, default_logger().ContextId(),
                            "The DLT daemon is gone, log messages follow here."));
  } else if (change == Dlt_sink::Change::returned) {
    constexpr std::string_view notice_text =
        "The DLT daemon is back, log messages went to standard error meanwhile.";
    std::array<char, text_overhead + notice_text.size()> notice;
    encode_text(notice.data(), notice_text);
    dlt_.send(*default_.load(std::memory_order_acquire), LogLevel::kWarn,
              Arguments({notice.data(), notice.size()}, 1));
  }
  return ready && dlt_.send(context, level, arguments);
}

void Backend::divert(std::shared_ptr<const Diversion> diversion) {
  const std::lock_guard lock(mutex_);
  if (diversion != nullptr && diversion_ != nullptr)
    throw std::logic_error("the log is diverted already");
  diversion_ = std::move(diversion);
  set_modes();
}

void Backend::set_modes() {
  modes_.store(diversion_ == nullptr ? mode_ : LogMode{}, std::memory_order_release);
}

std::vector<std::pair<std::string, LogLevel>> LevelsInForce() {
  std::vector<std::pair<std::string, LogLevel>> levels;
  for (auto* context = Backend::instance().contexts(); context != nullptr; context = context->next)
    levels.emplace_back(context->id, context->logger.Level());
  std::ranges::sort(levels);
  return levels;
}

bool SetLevelOf(std::string_view ctx_id, LogLevel level) {
  bool set = false;
  for (auto* context = Backend::instance().contexts(); context != nullptr;
       context = context->next) {
    if (context->id != ctx_id) continue;
    context->logger.SetLevel(level);
    set = true;
  }
  return set;
}

Recent_lines LinesFrom(std::uint64_t from) {
  return Backend::instance().recent().from(from);
}

void divert(std::shared_ptr<const Diversion> diversion) {
  Backend::instance().divert(std::move(diversion));
}

}  // namespace ara::log
