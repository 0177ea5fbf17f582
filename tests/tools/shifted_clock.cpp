// Preloaded, it gives a program a system clock that is POS_TEST_CLOCK_SHIFT seconds ahead.
#include <dlfcn.h>

#include <cstdlib>
#include <ctime>

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  using Function = int (*)(clockid_t, timespec*);
  static const auto original = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "clock_gettime"));
  static const char* const shift = std::getenv("POS_TEST_CLOCK_SHIFT");
  const int result = original(clock, now);
  if (result == 0 && clock == CLOCK_REALTIME && shift != nullptr) now->tv_sec += std::atol(shift);
  return result;
}
