#include "ara/log/logger.h"

#include <algorithm>
#include <charconv>

#include "platform/linux/log/arguments.h"
#include "platform/linux/log/backend.h"

namespace ara::log {
namespace {

constexpr std::size_t max_message = std::size_t{64} << 10;
constexpr std::string_view truncated = "[truncated]";
/// The bytes beyond this limit are reserved for the mark.
constexpr std::size_t limit = max_message - text_overhead - truncated.size();

}  // namespace

void InitLogging(std::string_view app_id,
                 std::string_view description,
                 LogLevel default_level,
                 LogMode mode,
                 std::string_view /*directory_path*/) {
  Backend::instance().init(app_id, description, default_level, mode);
}

Logger& CreateLogger(std::string_view ctx_id,
                     std::string_view description,
                     std::optional<LogLevel> level) {
  return Backend::instance().create(ctx_id, description, level);
}

Logger& DefaultLogger() {
  return Backend::instance().default_logger();
}

void Logger::SetLevel(LogLevel level) noexcept {
  level_.store(level, std::memory_order_relaxed);
}

const std::string& Logger::ContextId() const noexcept {
  return context_.id;
}

void LogStream::AddBool(bool value) noexcept {
  const std::uint8_t byte = value ? 1 : 0;
  AddNumber(static_cast<std::uint32_t>(Argument_type::boolean), &byte, 1);
}

void LogStream::AddSigned(std::int64_t value, std::size_t size) noexcept {
  AddInteger(static_cast<std::uint32_t>(of_size(Argument_type::signed_integer, size)),
             static_cast<std::uint64_t>(value), size);
}

void LogStream::AddUnsigned(std::uint64_t value, std::size_t size) noexcept {
  AddInteger(static_cast<std::uint32_t>(of_size(Argument_type::unsigned_integer, size)), value,
             size);
}

void LogStream::AddInteger(std::uint32_t type, std::uint64_t value, std::size_t size) noexcept {
  const auto add = [&](auto narrow) { AddNumber(type, &narrow, sizeof narrow); };
  switch (size) {
    case 1:
      return add(static_cast<std::uint8_t>(value));
    case 2:
      return add(static_cast<std::uint16_t>(value));
    case 4:
      return add(static_cast<std::uint32_t>(value));
    default:
      return add(value);
  }
}

void LogStream::AddFloat(float value) noexcept {
  AddNumber(static_cast<std::uint32_t>(Argument_type::float32), &value, sizeof value);
}

void LogStream::AddDouble(double value) noexcept {
  AddNumber(static_cast<std::uint32_t>(Argument_type::float64), &value, sizeof value);
}

void LogStream::AddHex(std::uint64_t value) noexcept {
  std::array<char, 16> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, 16).ptr;
  AddText({digits.data(), static_cast<std::size_t>(end - digits.data())});
}

void LogStream::AddNumber(std::uint32_t type, const void* value, std::size_t size) noexcept {
  if (truncated_) return;
  if (used_ + number_overhead + size > limit) {
    truncated_ = true;
  } else if (char* out = Extend(number_overhead + size); out != nullptr) {
    encode_number(out, static_cast<Argument_type>(type), value, size);
  }
}

void LogStream::AddText(std::string_view value) noexcept {
  if (truncated_) return;
  if (used_ + text_overhead + value.size() > limit) {
    truncated_ = true;
    if (used_ + text_overhead >= limit) return;
    value = value.substr(0, limit - used_ - text_overhead);
  }
  if (char* out = Extend(text_overhead + value.size()); out != nullptr) encode_text(out, value);
}

char* LogStream::Extend(std::size_t size) noexcept {
  const std::size_t needed = used_ + size;
  try {
    if (overflow_ == nullptr && needed > inline_.size()) {
      overflow_ = std::make_unique<std::string>(inline_.data(), used_);
    }
    if (overflow_ != nullptr) overflow_->resize(needed);
  } catch (const std::exception&) {
    truncated_ = true;
    return nullptr;
  }
  char* const out = (overflow_ != nullptr ? overflow_->data() : inline_.data()) + used_;
  used_ = needed;
  ++count_;
  return out;
}

void LogStream::Send() noexcept {
  if (truncated_) {
    if (char* out = Extend(text_overhead + truncated.size()); out != nullptr)
      encode_text(out, truncated);
  }
  const char* encoded = overflow_ != nullptr ? overflow_->data() : inline_.data();
  Backend::instance().submit(logger_->context_, level_, Arguments({encoded, used_}, count_));
}

}  // namespace ara::log
