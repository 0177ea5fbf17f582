#include "ara/log/logger.h"

#include <algorithm>
#include <charconv>

#include "platform/linux/log/arguments.h"
#include "platform/linux/log/backend.h"

namespace ara::log {
namespace {

constexpr std::size_t kMaxMessage = std::size_t{64} << 10;
constexpr std::string_view kTruncated = "[truncated]";
/// The bytes beyond this limit are reserved for the mark.
constexpr std::size_t kLimit = kMaxMessage - kTextOverhead - kTruncated.size();

}  // namespace

void InitLogging(std::string_view appId,
                 std::string_view description,
                 LogLevel defaultLevel,
                 LogMode mode,
                 std::string_view /*directoryPath*/) {
  Backend::Instance().Init(appId, description, defaultLevel, mode);
}

Logger& CreateLogger(std::string_view ctxId,
                     std::string_view description,
                     std::optional<LogLevel> level) {
  return Backend::Instance().Create(ctxId, description, level);
}

Logger& DefaultLogger() {
  return Backend::Instance().Default();
}

void Logger::SetLevel(LogLevel level) noexcept {
  level_.store(level, std::memory_order_relaxed);
}

const std::string& Logger::ContextId() const noexcept {
  return context_.id;
}

void LogStream::AddBool(bool value) noexcept {
  const std::uint8_t byte = value ? 1 : 0;
  AddNumber(static_cast<std::uint32_t>(ArgumentType::kBool), &byte, 1);
}

void LogStream::AddSigned(std::int64_t value, std::size_t size) noexcept {
  AddInteger(static_cast<std::uint32_t>(OfSize(ArgumentType::kSigned, size)),
             static_cast<std::uint64_t>(value), size);
}

void LogStream::AddUnsigned(std::uint64_t value, std::size_t size) noexcept {
  AddInteger(static_cast<std::uint32_t>(OfSize(ArgumentType::kUnsigned, size)), value, size);
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
  AddNumber(static_cast<std::uint32_t>(ArgumentType::kFloat), &value, sizeof value);
}

void LogStream::AddDouble(double value) noexcept {
  AddNumber(static_cast<std::uint32_t>(ArgumentType::kDouble), &value, sizeof value);
}

void LogStream::AddHex(std::uint64_t value) noexcept {
  std::array<char, 16> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, 16).ptr;
  AddText({digits.data(), static_cast<std::size_t>(end - digits.data())});
}

void LogStream::AddNumber(std::uint32_t type, const void* value, std::size_t size) noexcept {
  if (truncated_) return;
  if (used_ + kNumberOverhead + size > kLimit) {
    truncated_ = true;
  } else if (char* out = Extend(kNumberOverhead + size); out != nullptr) {
    EncodeNumber(out, static_cast<ArgumentType>(type), value, size);
  }
}

void LogStream::AddText(std::string_view value) noexcept {
  if (truncated_) return;
  if (used_ + kTextOverhead + value.size() > kLimit) {
    truncated_ = true;
    if (used_ + kTextOverhead >= kLimit) return;
    value = value.substr(0, kLimit - used_ - kTextOverhead);
  }
  if (char* out = Extend(kTextOverhead + value.size()); out != nullptr) EncodeText(out, value);
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
    if (char* out = Extend(kTextOverhead + kTruncated.size()); out != nullptr)
      EncodeText(out, kTruncated);
  }
  const char* encoded = overflow_ != nullptr ? overflow_->data() : inline_.data();
  Backend::Instance().Submit(logger_->context_, level_, Arguments({encoded, used_}, count_));
}

}  // namespace ara::log
