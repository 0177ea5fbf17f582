/// For tests: the messages of this process in place of its sinks.
#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "ara/log/common.h"
#include "platform/linux/log/arguments.h"

namespace ara::log {

/// Takes each message on the thread that logs it.
using Diversion = std::function<void(LogLevel level, std::string_view context, Arguments)>;

/// From now on every message whose level is enabled goes to `diversion` and nowhere else; null ends
/// that. A thread that is just logging may still use an ended one. Throws std::logic_error while
/// another one is there.
void Divert(std::shared_ptr<const Diversion> diversion);

}  // namespace ara::log
