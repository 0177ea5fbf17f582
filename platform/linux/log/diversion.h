/// For tests: diverts the messages of this process from its sinks.
#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "ara/log/common.h"
#include "platform/linux/log/arguments.h"

namespace ara::log {

/// Takes each message on the thread that logs it.
using Diversion = std::function<void(LogLevel level, std::string_view context, Arguments)>;

/// From now on every enabled message reaches `diversion` and nothing else; null ends that. A thread
/// that is logging at this moment may still use the previous diversion. Throws std::logic_error if
/// another diversion is active.
void divert(std::shared_ptr<const Diversion> diversion);

}  // namespace ara::log
