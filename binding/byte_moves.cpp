#include "binding/byte_moves.h"

#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace binding {

namespace {

/// As many records as are moved at once, from `from` to `to`; false when a byte is not what it must
/// be.
bool move_those_at_once(const Byte_moves& moves, const std::byte* from, std::byte* to) {
  for (const auto& block : moves.blocks) {
    auto bytes = block.constants;
    for (const auto& window : std::span{block.windows}.first(block.used)) {
      Block_bytes source;
      std::memcpy(source.data(), from + window.from, block_size);
      for (std::size_t i = 0; i < block_size; ++i) {
        if (((source[i] ^ window.required[i]) & window.mask[i]) != 0) return false;
        if ((window.moved >> i & 1U) != 0) bytes[i] = source[window.index[i]];
      }
    }
    std::memcpy(to + block.to, bytes.data(), block_size);
  }
  return true;
}

std::size_t move_plainly(const Byte_moves& moves,
                         const std::byte* from,
                         std::byte* to,
                         std::size_t count) {
  for (std::size_t moved = 0; moved < count;) {
    // The last ones together with some that have been moved before.
    const auto first = std::min(moved, count - moves.at_once);
    if (!move_those_at_once(moves, from + first * moves.source_size,
                            to + first * moves.destination_size)) {
      return moves.at_once == 1 ? moved : 0;
    }
    moved = first + moves.at_once;
  }
  return count;
}

}  // namespace

#if defined(__x86_64__)

#define WITH_WIDE_SHUFFLES __attribute__((target("avx512f,avx512bw,avx512vbmi")))

namespace {

const bool has_wide_shuffles =
    __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512bw");

WITH_WIDE_SHUFFLES inline __m512i load(const Block_bytes& bytes) {
  return _mm512_load_si512(bytes.data());
}

struct Loaded_window {
  __m512i required, index;
  __mmask64 moved;
  __m512i differences = _mm512_setzero_si512();  ///< of all bytes, whether they count or not

  WITH_WIDE_SHUFFLES explicit Loaded_window(const Window& window)
      : required{load(window.required)}, index{load(window.index)}, moved{window.moved} {}

  /// Puts bytes of the window into `block`.
  WITH_WIDE_SHUFFLES __m512i move(const std::byte* from, __m512i block) {
    auto bytes = _mm512_loadu_si512(from);
    asm("" : "+v"(bytes));  // once: the compiler would load it for each use
    constexpr int first_or_second_differs_from_third = 0xF0 | (0xCC ^ 0xAA);
    differences =
        _mm512_ternarylogic_epi64(differences, bytes, required, first_or_second_differs_from_third);
    return _mm512_mask_permutexvar_epi8(block, moved, index, bytes);
  }
  /// Whether all bytes that came by were what they must be.
  [[nodiscard]] WITH_WIDE_SHUFFLES bool right(const Window& window) const {
    return _mm512_test_epi8_mask(differences, load(window.mask)) == 0;
  }
};

/// Where a block lies in several groups of records that are moved at once: evenly apart, but for
/// the last group, which may overlap the one before it.
struct Groups {
  std::size_t evenly_apart;
  std::size_t source_step, destination_step;
  std::size_t source_last, destination_last;

  Groups(const Byte_moves& moves, std::size_t records)
      : evenly_apart{(records - 1) / moves.at_once},
        source_step{moves.at_once * moves.source_size},
        destination_step{moves.at_once * moves.destination_size},
        source_last{(records - moves.at_once) * moves.source_size},
        destination_last{(records - moves.at_once) * moves.destination_size} {}
};

/// A copy of the groups: the compiler cannot know that what is moved does not change the original.
template <class Move>
WITH_WIDE_SHUFFLES inline void for_each(Groups groups,
                                        const std::byte* from,
                                        std::byte* to,
                                        Move move) {
  const auto* source = from;
  auto* destination = to;
  for (; groups.evenly_apart != 0; --groups.evenly_apart) {
    move(source, destination);
    source += groups.source_step;
    destination += groups.destination_step;
  }
  move(from + groups.source_last, to + groups.destination_last);
}

/// One block of each group, so that what belongs to the block stays in registers.
[[gnu::always_inline]] WITH_WIDE_SHUFFLES inline bool move_block(const Block& block,
                                                                 const std::byte* from,
                                                                 std::byte* to,
                                                                 const Groups& groups) {
  const auto constants = load(block.constants);
  const auto& [near, far] = block.windows;
  from += near.from;
  to += block.to;
  Loaded_window first{near};
  if (block.used == 1) {
    for_each(groups, from, to, [&](const std::byte* source, std::byte* bytes) WITH_WIDE_SHUFFLES {
      _mm512_storeu_si512(bytes, first.move(source, constants));
    });
    return first.right(near);
  }
  const auto distance = far.from - near.from;
  Loaded_window second{far};
  for_each(groups, from, to, [&](const std::byte* source, std::byte* bytes) WITH_WIDE_SHUFFLES {
    _mm512_storeu_si512(bytes, second.move(source + distance, first.move(source, constants)));
  });
  return first.right(near) && second.right(far);
}

WITH_WIDE_SHUFFLES bool move_groups(const Byte_moves& moves,
                                    const std::byte* from,
                                    std::byte* to,
                                    const Groups& groups) {
  for (const auto& block : moves.blocks) {
    if (!move_block(block, from, to, groups)) return false;
  }
  return true;
}

/// One record after the other, up to the first that is refused: what is mostly there once.
WITH_WIDE_SHUFFLES std::size_t move_one_by_one(const Byte_moves& moves,
                                               const std::byte* from,
                                               std::byte* to,
                                               std::size_t count) {
  for (std::size_t moved = 0; moved < count; ++moved) {
    for (const auto& block : moves.blocks) {
      auto bytes = load(block.constants);
      for (const auto& window : std::span{block.windows}.first(block.used)) {
        Loaded_window loaded{window};
        bytes = loaded.move(from + window.from, bytes);
        if (!loaded.right(window)) return moved;
      }
      _mm512_storeu_si512(to + block.to, bytes);
    }
    from += moves.source_size;
    to += moves.destination_size;
  }
  return count;
}

}  // namespace

#endif

bool moves_bytes_fast() {
#if defined(__x86_64__)
  return has_wide_shuffles;
#else
  return false;
#endif
}

std::size_t move_records(const Byte_moves& moves,
                         const std::byte* from,
                         std::byte* to,
                         std::size_t count) {
  if (count < moves.at_once) return 0;
#if defined(__x86_64__)
  if (has_wide_shuffles) {
    if (moves.at_once == 1) return move_one_by_one(moves, from, to, count);
    return move_groups(moves, from, to, Groups{moves, count}) ? count : 0;
  }
#endif
  return move_plainly(moves, from, to, count);
}

}  // namespace binding
