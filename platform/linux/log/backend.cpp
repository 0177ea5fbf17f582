#include "platform/linux/log/backend.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace ara::log {
namespace {

/// The id of the default context until InitLogging names the application.
constexpr std::string_view unnamed = "DFLT";

void CheckId(std::string_view what, std::string_view id) {
  const auto printable = [](char c) { return c > 0x20 && c < 0x7f; };
  if (id.empty() || id.size() > 4 || !std::all_of(id.begin(), id.end(), printable)) {
    throw std::invalid_argument(std::string(what) + " \"" + std::string(id.substr(0, 64)) +
                                "\": expected 1 to 4 printable ASCII characters without blanks");
  }
}

std::string_view EnvironmentLevels() {
  const char* levels = std::getenv("POS_LOG_LEVEL");
  return levels != nullptr ? levels : "";
}

}  // namespace

Backend& Backend::Instance() {
  static auto* instance = new Backend;  // NOLINT(cppcoreguidelines-owning-memory): lives to the end
  return *instance;
}

Backend::Backend()
    : settings_(LevelSettings::Parse(EnvironmentLevels())),
      dlt_(*new DltSink),
      text_(*new TextSink) {
  default_.store(&Add(std::string(unnamed), "default context", std::nullopt));
}

void Backend::Init(std::string_view app_id,
                   std::string_view description,
                   LogLevel default_level,
                   LogMode mode) {
  CheckId("application id", app_id);
  {
    const std::lock_guard lock(mutex_);
    if (!std::exchange(initialised_, true)) {
      application_ = app_id;
      default_level_ = default_level;
      if (auto* named = Find(app_id); named != nullptr) {
        default_.store(named, std::memory_order_release);
      } else {
        Find(unnamed)->id = app_id;
      }
      for (auto* context = contexts(); context != nullptr; context = context->next) {
        context->logger.SetLevel(LevelFor(*context));
      }
      dlt_.Configure(app_id, description);
      text_.Configure(app_id);
      mode_ = mode;
      SetModes();
      // Connects now if there is a daemon, so that the first message need not.
      if (Has(mode, LogMode::kRemote)) (void)dlt_.Ready(contexts());
      if (settings_.complaint.empty()) return;
    }
  }
  if (settings_.complaint.empty()) {
    Default().LogWarn() << "InitLogging was called again and ignored";
  } else {
    Default().LogWarn() << "environment variable POS_LOG_LEVEL: ignored" << settings_.complaint
                        << "- expected a level or CTXT=level, separated by commas; levels are"
                        << "off, fatal, error, warn, info, debug, verbose";
  }
}

Logger& Backend::Create(std::string_view id,
                        std::string_view description,
                        std::optional<LogLevel> level) {
  CheckId("log context id", id);
  const std::lock_guard lock(mutex_);
  if (auto* known = Find(id); known != nullptr) return known->logger;
  auto& context = Add(std::string(id), std::string(description), level);
  dlt_.Register(context);
  return context.logger;
}

Context* Backend::Find(std::string_view id) const {
  auto* context = contexts();
  while (context != nullptr && context->id != id)
    context = context->next;
  return context;
}

Context& Backend::Add(std::string id, std::string description, std::optional<LogLevel> level) {
  auto* context = new Context(std::move(id), std::move(description), level);
  context->logger.SetLevel(LevelFor(*context));
  context->next = contexts_.load(std::memory_order_relaxed);
  contexts_.store(context, std::memory_order_release);
  return *context;
}

LogLevel Backend::LevelFor(const Context& context) const {
  const auto entry = settings_.contexts.find(context.id);
  if (entry != settings_.contexts.end()) return entry->second;
  return context.own_level.value_or(settings_.general.value_or(default_level_));
}

void Backend::Submit(Context& context, LogLevel level, Arguments arguments) noexcept {
  try {
    const LogMode modes = modes_.load(std::memory_order_acquire);
    const bool remote = Has(modes, LogMode::kRemote);
    const bool sent = remote && SendToDaemon(context, level, arguments);
    if (Has(modes, LogMode::kConsole) || (remote && !sent)) {
      text_.Write(FormatLine(level, application_, context.id, arguments.Text()));
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

bool Backend::SendToDaemon(Context& context, LogLevel level, Arguments arguments) {
  const auto [ready, change] = dlt_.Ready(contexts());
  if (change == DltSink::Change::lost) {
    text_.Write(FormatLine(LogLevel::kWarn, application_, Default().ContextId(),
                           "The DLT daemon is gone, log messages follow here."));
  } else if (change == DltSink::Change::returned) {
    constexpr std::string_view notice_text =
        "The DLT daemon is back, log messages went to standard error meanwhile.";
    std::array<char, text_overhead + notice_text.size()> notice;
    EncodeText(notice.data(), notice_text);
    dlt_.Send(*default_.load(std::memory_order_acquire), LogLevel::kWarn,
              Arguments({notice.data(), notice.size()}, 1));
  }
  return ready && dlt_.Send(context, level, arguments);
}

void Backend::Divert(std::shared_ptr<const Diversion> diversion) {
  const std::lock_guard lock(mutex_);
  if (diversion != nullptr && diversion_ != nullptr)
    throw std::logic_error("the log is diverted already");
  diversion_ = std::move(diversion);
  SetModes();
}

void Backend::SetModes() {
  modes_.store(diversion_ == nullptr ? mode_ : LogMode{}, std::memory_order_release);
}

void Divert(std::shared_ptr<const Diversion> diversion) {
  Backend::Instance().Divert(std::move(diversion));
}

}  // namespace ara::log
