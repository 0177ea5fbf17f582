/// The only object of the process that knows all contexts and all sinks.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/log/arguments.h"
#include "platform/linux/log/context.h"
#include "platform/linux/log/diversion.h"
#include "platform/linux/log/dlt_sink.h"
#include "platform/linux/log/level_settings.h"
#include "platform/linux/log/text_sink.h"

namespace ara::log {

/// Never destroyed: code that runs late in the process may still log.
class Backend {
 public:
  static Backend& Instance();
  Backend(const Backend&) = delete;
  Backend& operator=(const Backend&) = delete;

  void Init(std::string_view app_id,
            std::string_view description,
            LogLevel default_level,
            LogMode mode);
  Logger& Create(std::string_view id, std::string_view description, std::optional<LogLevel> level);
  Logger& Default() { return default_.load(std::memory_order_acquire)->logger; }
  /// Gives one message to the sinks.
  void Submit(Context& context, LogLevel level, Arguments arguments) noexcept;
  void Divert(std::shared_ptr<const Diversion> diversion);
  [[nodiscard]] Context* contexts() const { return contexts_.load(std::memory_order_acquire); }
  // At exit: each runs before the library or the thread behind the sink ends.
  void CloseDlt() { dlt_.Close(); }
  void CloseText() { text_.Close(); }

 private:
  Backend();
  ~Backend() = delete;
  Context* Find(std::string_view id) const;
  Context& Add(std::string id, std::string description, std::optional<LogLevel> level);
  [[nodiscard]] LogLevel LevelFor(const Context& context) const;
  void SetModes();
  bool SendToDaemon(Context& context, LogLevel level, Arguments arguments);

  const LevelSettings settings_;
  std::mutex mutex_;  ///< guards creation of contexts and the members up to diversion_
  bool initialised_ = false;
  LogLevel default_level_ = LogLevel::kInfo;
  LogMode mode_ = LogMode::kConsole;
  std::shared_ptr<const Diversion> diversion_;
  std::atomic<Context*> contexts_ = nullptr;
  std::atomic<Context*> default_ = nullptr;

  /// Written by Init before the process has threads; released by modes_.
  std::string application_ = "-";
  /// No bits while messages are diverted, so that only messages without a sink check diversion_.
  std::atomic<LogMode> modes_ = LogMode::kConsole;
  DltSink& dlt_;
  TextSink& text_;
};

}  // namespace ara::log
