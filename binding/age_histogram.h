/// Counts durations in buckets whose width grows with the duration, for percentiles.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace binding {

/// The summary of a histogram. Its times deviate from the measured ones by at most 0.8 %.
struct Age {
  std::string name;
  std::uint32_t windowS = 0;  ///< over the last seconds; 0: since the start
  std::uint64_t count = 0;
  // 0 without a count.
  std::uint64_t minNs = 0;
  std::uint64_t p50Ns = 0;
  std::uint64_t p99Ns = 0;
  std::uint64_t p999Ns = 0;
  std::uint64_t maxNs = 0;
  std::uint64_t sumNs = 0;
};

/// A histogram of durations from 0 ns to 4.8 hours. A longer duration counts as 4.8 hours; a
/// negative one, after a step of the clock, does not count. Adding takes a few nanoseconds, no lock
/// and no memory.
class Age_histogram {
 public:
  /// One thread at a time adds.
  void add(std::chrono::nanoseconds duration) {
    const auto value = static_cast<std::uint64_t>(duration.count());
    // One comparison for both: a negative duration is a large number here.
    if (value > longest) [[unlikely]] {
      add_out_of_range(duration);
    } else {
      count(index_of(value));
    }
  }

  // The following members are for any other thread, one at a time.

  /// Ends a second of the window of the last `window` seconds.
  void end_second();
  [[nodiscard]] Age since_start(std::string name) const;
  [[nodiscard]] Age of_window(std::string name) const;

  static constexpr std::uint32_t window = 10;
  static constexpr std::uint64_t longest = (std::uint64_t{1} << 44U) - 1;  ///< in ns

  /// A duration of up to 127 ns has a bucket of its own. Above, each doubling has 64 buckets.
  /// It must not exceed `longest`.
  [[nodiscard]] static constexpr std::size_t index_of(std::uint64_t duration) {
    constexpr std::uint64_t own_bucket = (2U << sub_bits) - 1;
    // The place of the highest bit, which is one instruction; std::bit_width() takes three.
    const unsigned highest = 63U ^ static_cast<unsigned>(std::countl_zero(duration | own_bucket));
    const unsigned shift = highest - sub_bits;
    return (static_cast<std::size_t>(shift) << sub_bits) + (duration >> shift);
  }
  /// The middle of a bucket.
  [[nodiscard]] static constexpr std::uint64_t duration_of(std::size_t index) {
    const auto shift = index < (2U << sub_bits) ? 0 : (index >> sub_bits) - 1;
    const std::uint64_t low = (index - (shift << sub_bits)) << shift;
    return low + ((std::uint64_t{1} << shift) >> 1U);
  }

 private:
  static constexpr unsigned sub_bits = 6;
  static constexpr std::size_t bucket_count = 39U << sub_bits;

  using Count = std::uint64_t;
  using Counts = std::array<Count, bucket_count>;
  /// The counts of a second that are not 0: index and count.
  using Second = std::vector<std::pair<std::uint16_t, std::uint32_t>>;

  void count(std::size_t index) {
    auto& bucket = buckets_[index];
    // Relaxed: a reader needs no other memory. No atomic addition: there is no second writer.
    bucket.store(bucket.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  [[gnu::cold]] void add_out_of_range(std::chrono::nanoseconds duration);

  [[nodiscard]] static Age age_of(std::string name, std::uint32_t seconds, const Counts& counts);
  [[nodiscard]] Counts counts() const;

  std::array<std::atomic<Count>, bucket_count> buckets_{};
  Counts seen_{};  ///< at the end of the last second
  std::array<Second, window> seconds_;
  std::size_t next_ = 0;  ///< of seconds_
};

}  // namespace binding
