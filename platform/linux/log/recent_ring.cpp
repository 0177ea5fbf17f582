#include "platform/linux/log/recent_ring.h"

#include <algorithm>

namespace ara::log {
namespace {

constexpr std::size_t max_bytes = std::size_t{256} << 10;
constexpr std::size_t max_text = 1024;  ///< of a line
/// Lines at the start of the process that are kept without a reader.
constexpr std::uint64_t start_lines = 200;
constexpr std::chrono::seconds patience{10};
/// Bounds of an answer, in lines and bytes.
constexpr std::size_t max_answer = 200;
constexpr std::size_t max_answer_bytes = std::size_t{24} << 10;

std::size_t size_of(const Recent_line& line) {
  return sizeof line + line.context.size() + line.text.size();
}

/// Not within a character of UTF-8.
std::string_view cut(std::string_view text) {
  if (text.size() <= max_text) return text;
  std::size_t end = max_text;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U)
    --end;
  return text.substr(0, end);
}

}  // namespace

void Recent_ring::add(LogLevel level, std::string_view context, std::string_view text) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
  Recent_line line{static_cast<std::uint64_t>(us), level, std::string(context),
                   std::string(cut(text))};
  const std::lock_guard lock(mutex_);
  bytes_ += size_of(line);
  lines_.push_back(std::move(line));
  for (; bytes_ > max_bytes; ++first_) {
    bytes_ -= size_of(lines_.front());
    lines_.pop_front();
  }
  if (first_ + lines_.size() >= start_lines && Clock::now() >= all_until_)
    all_.store(false, std::memory_order_relaxed);
}

Recent_lines Recent_ring::from(std::uint64_t number) {
  const std::lock_guard lock(mutex_);
  all_until_ = Clock::now() + patience;
  all_.store(true, std::memory_order_relaxed);
  const std::uint64_t end = first_ + lines_.size();
  if (number > end) number = 0;  // of an earlier process
  Recent_lines answer{std::max(number, first_), number < first_ ? first_ - number : 0, {}};
  for (std::size_t bytes = 0;
       answer.next < end && answer.lines.size() < max_answer && bytes < max_answer_bytes;
       ++answer.next) {
    answer.lines.push_back(lines_[answer.next - first_]);
    bytes += size_of(answer.lines.back());
  }
  return answer;
}

}  // namespace ara::log
