/// The gateway's lines on standard error.
#pragma once

#include <string>

namespace gateway {

/// Writes one line to standard error. Drops it when the pipe is full, so that positions continue.
void say(const std::string& text);

}  // namespace gateway
