#include "binding/byte_moves.h"

#if defined(__x86_64__)

#include <immintrin.h>

#define WITH_WIDE_SHUFFLES [[gnu::target("avx512f,avx512bw,avx512vbmi")]]

namespace binding {

namespace {

const bool has_wide_shuffles =
    __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512bw");

WITH_WIDE_SHUFFLES inline __m512i load(const Block_bytes& bytes) {
  return _mm512_load_si512(bytes.data());
}

struct Loaded_window {
  __m512i required, mask, index;
  __mmask64 moved;

  WITH_WIDE_SHUFFLES explicit Loaded_window(const Window& window)
      : required{load(window.required)},
        mask{load(window.mask)},
        index{load(window.index)},
        moved{~_mm512_movepi8_mask(index)} {}

  /// Puts bytes of the window into `block`, and adds what must not be to `differences`.
  WITH_WIDE_SHUFFLES __m512i move(const std::byte* from,
                                  __m512i block,
                                  __m512i& differences) const {
    auto bytes = _mm512_loadu_si512(from);
    asm("" : "+v"(bytes));  // once: the compiler would load it for each use
    constexpr int first_or_second_and_third = 0xF0 | (0xCC & 0xAA);
    differences = _mm512_ternarylogic_epi64(differences, _mm512_xor_si512(bytes, required), mask,
                                            first_or_second_and_third);
    return _mm512_mask_permutexvar_epi8(block, moved, index, bytes);
  }
};

WITH_WIDE_SHUFFLES inline bool any(__m512i bits) {
  return _mm512_test_epi8_mask(bits, bits) != 0;
}

struct Loaded_block {
  Loaded_window first, second;
  __m512i constants;
  bool two;
  std::ptrdiff_t to_second;

  WITH_WIDE_SHUFFLES explicit Loaded_block(const Block& block)
      : first{block.windows[0]},
        second{block.windows[1]},
        constants{load(block.constants)},
        two{block.used > 1},
        to_second{block.windows[1].from - block.windows[0].from} {}

  WITH_WIDE_SHUFFLES void move(const std::byte* from, std::byte* to, __m512i& differences) const {
    auto bytes = first.move(from, constants, differences);
    if (two) bytes = second.move(from + to_second, bytes, differences);
    _mm512_storeu_si512(to, bytes);
  }
};

/// One record after the other, up to the first that is refused: what is mostly there once.
WITH_WIDE_SHUFFLES std::size_t move_one_by_one(const Byte_moves& moves,
                                               const std::byte* from,
                                               std::byte* to,
                                               std::size_t count) {
  for (std::size_t moved = 0; moved < count; ++moved) {
    for (const auto& block : moves.blocks) {
      auto differences = _mm512_setzero_si512();
      Loaded_block{block}.move(from + block.windows[0].from, to + block.to, differences);
      if (any(differences)) return moved;
    }
    from += moves.source_size;
    to += moves.destination_size;
  }
  return count;
}

/// Block by block, so that what belongs to a block stays in registers.
WITH_WIDE_SHUFFLES bool move_together(const Byte_moves& moves,
                                      const std::byte* from,
                                      std::byte* to,
                                      std::size_t count) {
  const auto times = count / moves.at_once;
  const bool rest = count % moves.at_once != 0;
  const auto source_distance = moves.at_once * moves.source_size;
  const auto destination_distance = moves.at_once * moves.destination_size;
  auto differences = _mm512_setzero_si512();
  for (const auto& block : moves.blocks) {
    const Loaded_block loaded{block};
    const auto* source = from + block.windows[0].from;
    auto* destination = to + block.to;
    for (auto left = times; left != 0; --left) {
      loaded.move(source, destination, differences);
      source += source_distance;
      destination += destination_distance;
    }
    if (!rest) continue;
    // Together with some that have been moved before.
    const auto first = count - moves.at_once;
    loaded.move(from + first * moves.source_size + block.windows[0].from,
                to + first * moves.destination_size + block.to, differences);
  }
  return !any(differences);
}

}  // namespace

bool can_move_bytes() {
  return has_wide_shuffles;
}

std::size_t move_records(const Byte_moves& moves,
                         const std::byte* from,
                         std::byte* to,
                         std::size_t count) {
  if (moves.at_once == 1) return move_one_by_one(moves, from, to, count);
  return count >= moves.at_once && move_together(moves, from, to, count) ? count : 0;
}

}  // namespace binding

#else

namespace binding {

bool can_move_bytes() {
  return false;
}

std::size_t move_records(const Byte_moves&, const std::byte*, std::byte*, std::size_t) {
  return 0;
}

}  // namespace binding

#endif
