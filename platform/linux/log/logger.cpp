#include "ara/log/logger.h"

#include <algorithm>
#include <charconv>

#include "platform/linux/log/arguments.h"
#include "platform/linux/log/backend.h"

namespace ara::log {
namespace {

constexpr std::size_t kMaxMessage = std::size_t{64} << 10;
constexpr std::string_view kTruncated = "[truncated]";

}  // namespace

void InitLogging(std::string_view appId,
                 std::string_view description,
                 LogLevel defaultLevel,
                 LogMode mode,
                 std::string_view directoryPath) {
  Backend::Instance().Init(appId, description, defaultLevel, mode, directoryPath);
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
  Add(static_cast<std::uint8_t>(ArgumentType::kBool), &byte, 1);
}

void LogStream::AddSigned(std::int64_t value, std::size_t size) noexcept {
  const auto add = [this](auto narrow) {
    Add(static_cast<std::uint8_t>(ArgumentType::kSigned), &narrow, sizeof narrow);
  };
  switch (size) {
    case 1:
      return add(static_cast<std::int8_t>(value));
    case 2:
      return add(static_cast<std::int16_t>(value));
    case 4:
      return add(static_cast<std::int32_t>(value));
    default:
      return add(value);
  }
}

void LogStream::AddUnsigned(std::uint64_t value, std::size_t size) noexcept {
  const auto add = [this](auto narrow) {
    Add(static_cast<std::uint8_t>(ArgumentType::kUnsigned), &narrow, sizeof narrow);
  };
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
  Add(static_cast<std::uint8_t>(ArgumentType::kFloat), &value, sizeof value);
}

void LogStream::AddDouble(double value) noexcept {
  Add(static_cast<std::uint8_t>(ArgumentType::kDouble), &value, sizeof value);
}

void LogStream::AddText(std::string_view value) noexcept {
  Add(static_cast<std::uint8_t>(ArgumentType::kText), value.data(), value.size());
}

void LogStream::AddHex(std::uint64_t value) noexcept {
  std::array<char, 16> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, 16).ptr;
  AddText({digits.data(), static_cast<std::size_t>(end - digits.data())});
}

void LogStream::Add(std::uint8_t type, const void* data, std::size_t size) noexcept {
  // What is left beyond the limit is kept for the mark.
  if (truncated_) return;
  constexpr std::size_t kLimit = kMaxMessage - kArgumentHeaderSize - kTruncated.size();
  if (used_ + kArgumentHeaderSize + size > kLimit) {
    if (type == static_cast<std::uint8_t>(ArgumentType::kText) &&
        used_ + kArgumentHeaderSize < kLimit) {
      size = kLimit - used_ - kArgumentHeaderSize;
    } else {
      size = 0;
    }
    truncated_ = true;
    if (size == 0) return;
  }
  Append(type, data, size);
}

void LogStream::Append(std::uint8_t type, const void* data, std::size_t size) noexcept {
  const std::size_t needed = used_ + kArgumentHeaderSize + size;
  try {
    if (overflow_ == nullptr && needed > inline_.size()) {
      overflow_ = std::make_unique<std::string>(inline_.data(), used_);
    }
    if (overflow_ != nullptr) overflow_->resize(needed);
  } catch (const std::exception&) {
    truncated_ = true;
    return;
  }
  EncodeArgument((overflow_ != nullptr ? overflow_->data() : inline_.data()) + used_,
                 static_cast<ArgumentType>(type), data, size);
  used_ = needed;
}

void LogStream::Send() noexcept {
  if (truncated_) {
    Append(static_cast<std::uint8_t>(ArgumentType::kText), kTruncated.data(), kTruncated.size());
  }
  const char* encoded = overflow_ != nullptr ? overflow_->data() : inline_.data();
  Backend::Instance().Submit(logger_->context_, level_, {encoded, used_});
}

}  // namespace ara::log
