/// A machine that has no thread left.
#pragma once

#include <pthread.h>

#include <cstddef>

namespace test {

/// While it lives, no thread can be started in this process: its stack would be too large.
class No_threads {
 public:
  No_threads() {
    pthread_getattr_default_np(&usual_);
    pthread_attr_t endless = usual_;
    pthread_attr_setstacksize(&endless, std::size_t{1} << 50);
    pthread_setattr_default_np(&endless);
  }
  ~No_threads() { pthread_setattr_default_np(&usual_); }
  No_threads(const No_threads&) = delete;
  No_threads& operator=(const No_threads&) = delete;

 private:
  pthread_attr_t usual_{};
};

}  // namespace test
