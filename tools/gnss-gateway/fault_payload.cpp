#include "tools/gnss-gateway/fault_payload.h"

#include <cstdint>

#include "binding/payload.h"

namespace gateway {
namespace {

/// Places in the payload: the length of the first record, and its first tag.
constexpr std::size_t record_length = 4;
constexpr std::size_t first_tag = 8;
constexpr std::byte wire_type_bits{0x70};
constexpr std::byte noise{0xA5};

}  // namespace

std::vector<std::byte> malformed(std::span<const std::byte> payload, Malformation malformation) {
  std::vector<std::byte> bytes(payload.begin(), payload.end());
  const bool has_record = bytes.size() > first_tag;
  switch (malformation) {
    case Malformation::none:
      break;
    case Malformation::length:
      // The last member of the record reaches beyond it.
      if (has_record) {
        auto* const at = bytes.data() + record_length;
        constexpr auto order = binding::Byte_order::big_endian;
        binding::store(at, binding::load<std::uint32_t>(at, order) - 1, order);
      }
      break;
    case Malformation::wire_type:
      if (has_record) bytes[first_tag] ^= wire_type_bits;
      break;
    case Malformation::truncated:
      bytes.resize(bytes.size() / 2);
      break;
    case Malformation::noise:
      for (auto& byte : bytes)
        byte ^= noise;
      break;
  }
  return bytes;
}

}  // namespace gateway
