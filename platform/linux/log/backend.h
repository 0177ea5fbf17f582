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
#include "platform/linux/log/recent_ring.h"
#include "platform/linux/log/text_sink.h"

namespace ara::log {

/// Never destroyed: code that runs late in the process may still log.
class Backend {
 public:
  static Backend& instance();
  Backend(const Backend&) = delete;
  Backend& operator=(const Backend&) = delete;

  void init(std::string_view app_id,
            std::string_view description,
            LogLevel default_level,
            LogMode mode);
  Logger& create(std::string_view id, std::string_view description, std::optional<LogLevel> level);
  Logger& default_logger() { return default_.load(std::memory_order_acquire)->logger; }
  /// Gives one message to the sinks.
  void submit(Context& context, LogLevel level, Arguments arguments) noexcept;
  void divert(std::shared_ptr<const Diversion> diversion);
  [[nodiscard]] Recent_ring& recent() { return recent_; }
  [[nodiscard]] Context* contexts() const { return contexts_.load(std::memory_order_acquire); }

 private:
  Backend();
  ~Backend() = delete;
  Context* find(std::string_view id) const;
  Context& add(std::string id, std::string description, std::optional<LogLevel> level);
  [[nodiscard]] LogLevel level_for(const Context& context) const;
  void set_modes();
  bool send_to_daemon(Context& context, LogLevel level, Arguments arguments);

  const Level_settings settings_;
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
  Dlt_sink& dlt_;
  Text_sink& text_;
  Recent_ring& recent_;
};

}  // namespace ara::log
