/// A log context as the sinks see it. Contexts are made once and live until the process ends.
#pragma once

#include <dlt/dlt.h>

#include <atomic>
#include <optional>
#include <string>
#include <utility>

#include "ara/log/logger.h"

namespace ara::log {

struct Context {
  Context(std::string context_id, std::string context_description, std::optional<LogLevel> level)
      : id(std::move(context_id)),
        description(std::move(context_description)),
        own_level(level),
        logger(*this) {}
  ~Context() = delete;
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  std::string id;  ///< changes once, for the default context, in InitLogging
  const std::string description;
  const std::optional<LogLevel> own_level;  ///< the level given to CreateLogger
  Logger logger;
  /// The list of all contexts, newest first. Read without a lock, because a thread of the DLT
  /// library calls back to change a level.
  Context* next = nullptr;

  DltContext dlt{};                     ///< filled and first used under Dlt_sink's mutex
  std::atomic<bool> dlt_ready = false;  ///< released after `dlt` was filled
};

}  // namespace ara::log
