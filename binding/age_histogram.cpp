#include "binding/age_histogram.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace binding {

static_assert(Age_histogram::index_of(Age_histogram::longest) == (39U << 6U) - 1);

void Age_histogram::add_out_of_range(std::chrono::nanoseconds duration) {
  if (duration.count() > 0) count(index_of(longest));
}

Age_histogram::Counts Age_histogram::counts() const {
  Counts counts;
  std::ranges::transform(buckets_, counts.begin(),
                         [](const auto& bucket) { return bucket.load(std::memory_order_relaxed); });
  return counts;
}

void Age_histogram::end_second() {
  Second& second = seconds_[next_];
  second.clear();
  for (std::size_t i = 0; i < bucket_count; ++i) {
    const Count now = buckets_[i].load(std::memory_order_relaxed);
    const Count since = now - std::exchange(seen_[i], now);
    if (since == 0) continue;
    second.emplace_back(static_cast<std::uint16_t>(i), static_cast<std::uint32_t>(since));
  }
  next_ = (next_ + 1) % seconds_.size();
}

Age Age_histogram::since_start(std::string name) const {
  return age_of(std::move(name), 0, counts());
}

Age Age_histogram::of_window(std::string name) const {
  Counts sum{};
  for (const Second& second : seconds_) {
    for (const auto& [index, count] : second)
      sum[index] += count;
  }
  return age_of(std::move(name), window, sum);
}

Age Age_histogram::age_of(std::string name, std::uint32_t seconds, const Counts& counts) {
  Age age{.name = std::move(name), .windowS = seconds};
  for (std::size_t i = 0; i < counts.size(); ++i) {
    age.count += counts[i];
    const std::uint64_t each = duration_of(i);
    const std::uint64_t room = std::numeric_limits<std::uint64_t>::max() - age.sumNs;
    age.sumNs += each != 0 && counts[i] > room / each ? room : counts[i] * each;
  }
  if (age.count == 0) return age;
  /// The duration that this share of all durations does not exceed.
  const auto percentile = [&](double share) {
    const auto rank = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(age.count)));
    std::uint64_t passed = 0;
    std::size_t index = 0;
    while ((passed += counts[index]) < std::max<std::uint64_t>(rank, 1))
      ++index;
    return duration_of(index);
  };
  age.minNs = percentile(0);
  age.p50Ns = percentile(0.5);
  age.p99Ns = percentile(0.99);
  age.p999Ns = percentile(0.999);
  age.maxNs = percentile(1);
  return age;
}

}  // namespace binding
