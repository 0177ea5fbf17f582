/// A precise local time that stands still until a test moves it.
#pragma once

#include "clients/timeutils.h"

struct Fixed_time : timeutils {
  std::uint64_t now_us = 0;
  [[nodiscard]] std::uint64_t current_time_us() const override { return now_us; }
};
