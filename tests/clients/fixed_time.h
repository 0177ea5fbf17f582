/// A precise local time that stands still until a test moves it.
#pragma once

#include "clients/timeutils.h"

struct Fixed_time : timeutils {
  std::uint64_t now_us = 0;
  [[nodiscard]] std::chrono::nanoseconds now() const override {
    return std::chrono::microseconds{now_us};
  }
};
