/// Records of one fixed form moved into another fixed form: some bytes of the source must have
/// given values, each byte of the destination is a byte of the source or a constant. Done in
/// blocks, with the byte shuffles that processors have.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>

namespace binding {

/// What a byte of the source has to be.
struct Required_byte {
  std::uint8_t value = 0;
  std::uint8_t mask = 0;  ///< bits that count
};

/// What a byte of the destination becomes.
struct Moved_byte {
  static constexpr std::int16_t constant = -1;
  std::int16_t from = constant;  ///< position in the source
  std::uint8_t value = 0;        ///< of a constant
};

/// Bytes that are moved at once.
inline constexpr std::size_t block_size = 64;
using Block_bytes = std::array<std::uint8_t, block_size>;

/// A block of the source: what its bytes must be, and where in the destination they go.
struct Window {
  alignas(block_size) Block_bytes required{};
  alignas(block_size) Block_bytes mask{};
  alignas(block_size) Block_bytes index{};  ///< where in the window a byte of the destination is
  std::uint64_t moved = 0;                  ///< a bit for each byte whose index counts
  std::size_t from = 0;                     ///< where in the source the window begins
};

/// A block of the destination is put together out of one or two windows.
struct Block {
  alignas(block_size) Block_bytes constants{};
  std::array<Window, 2> windows{};
  std::size_t used = 0;  ///< of the windows
  std::size_t to = 0;
};

/// How records are moved, so many at once.
struct Byte_moves {
  std::size_t source_size;  ///< of one record
  std::size_t destination_size;
  std::size_t at_once;
  std::span<const Block> blocks;  ///< in the order in which they are moved
};

/// Whether this processor moves records faster than their members one by one: it needs AVX-512
/// VBMI.
[[nodiscard]] bool moves_bytes_fast();

/// Moves records that lie one behind the other, and returns how many. Stops at the first that has
/// not the bytes it must have; those that are moved at once are all moved or none. What is in the
/// destination behind the moved ones is not specified.
[[nodiscard]] std::size_t move_records(const Byte_moves& moves,
                                       const std::byte* from,
                                       std::byte* to,
                                       std::size_t count);

template <std::size_t Destination_size>
using Blocks = std::array<Block, (Destination_size + block_size - 1) / block_size>;

/// The blocks for a source and a destination of these forms. None when one of them is shorter than
/// a block, or what goes into one block lies too far apart.
template <std::size_t Source_size, std::size_t Destination_size>
constexpr std::optional<Blocks<Destination_size>> planned_blocks(
    const std::array<Required_byte, Source_size>& required,
    const std::array<Moved_byte, Destination_size>& moved) {
  if (std::min(Source_size, Destination_size) < block_size) return std::nullopt;
  Blocks<Destination_size> blocks;
  std::size_t checked = 0;  // so many bytes of the source are looked at by earlier windows
  std::size_t next = 0;
  for (auto& block : blocks) {
    // The last block overlaps the one before it, so that nothing is touched outside.
    const auto to = std::min(next, Destination_size - block_size);
    next += block_size;
    block.to = to;
    std::array<bool, block_size> done{};
    for (std::size_t i = 0; i < block_size; ++i) {
      done[i] = moved[to + i].from == Moved_byte::constant;
      if (done[i]) block.constants[i] = moved[to + i].value;
    }
    do {
      // Bytes that only must have a value may lie before the first that is moved.
      auto from = std::min(checked, Source_size - block_size);
      for (std::size_t i = 0; i < block_size; ++i) {
        if (!done[i]) from = std::min(from, static_cast<std::size_t>(moved[to + i].from));
      }
      if (block.used == block.windows.size()) return std::nullopt;
      auto& window = block.windows[block.used++];
      window.from = from;
      for (std::size_t i = 0; i < block_size; ++i) {
        const auto source = static_cast<std::size_t>(moved[to + i].from);
        if (!done[i] && source < from + block_size) {
          window.index[i] = static_cast<std::uint8_t>(source - from);
          window.moved |= std::uint64_t{1} << i;
          done[i] = true;
        }
        if (from + i < checked) continue;
        window.required[i] = required[from + i].value;
        window.mask[i] = required[from + i].mask;
      }
      checked = std::max(checked, from + block_size);
    } while (!std::ranges::all_of(done, std::identity{}));
  }
  if (checked < Source_size) return std::nullopt;
  return blocks;
}

}  // namespace binding
