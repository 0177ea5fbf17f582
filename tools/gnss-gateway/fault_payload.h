/// Payloads that break the rules of their encoding.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "tools/gnss-gateway/fault.h"

namespace gateway {

/// `payload` is a vector of TLV records: a length, then each record behind its own length.
[[nodiscard]] std::vector<std::byte> malformed(std::span<const std::byte> payload,
                                               Malformation malformation);

}  // namespace gateway
