#include "mw/com/static_thread_pool.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <boost/asio/steady_timer.hpp>
#include <boost/system/system_error.hpp>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <system_error>

#include "platform/linux/com/loop.h"

namespace mw::com {

namespace {

constexpr std::uint64_t stop_id = 0;
constexpr std::uint64_t posted_id = 1;
constexpr std::uint64_t first_reader_id = 2;

int checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

void add(int epoll, int descriptor, std::uint32_t events, std::uint64_t id) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  checked(epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event),
          "cannot watch a descriptor for the workers of SOME/IP");
}

void signal(int event) {
  const std::uint64_t one = 1;
  // Fails only when the counter is full, and then the event is set anyway.
  [[maybe_unused]] const auto written = ::write(event, &one, sizeof one);
}

/// Opens the descriptors of an event loop, which its first timer would do otherwise.
void open(boost::asio::io_context& loop) {
  try {
    const boost::asio::steady_timer timer(loop);
  } catch (const boost::system::system_error& error) {
    throw std::system_error(error.code(),
                            "cannot open the event loop for SOME/IP's control thread");
  }
}

void start(std::vector<std::thread>& threads, const char* name, std::function<void()> work) {
  try {
    threads.emplace_back([work = std::move(work)]() noexcept { work(); });
  } catch (const std::system_error& error) {
    throw std::system_error(error.code(), "cannot start a thread for " + std::string(name));
  }
  pthread_setname_np(threads.back().native_handle(), name);
}

}  // namespace

static_thread_pool::Loop::Loop(std::size_t threads)
    : control_guard_(control_.get_executor()), next_id_(first_reader_id) {
  if (threads == 0) throw std::invalid_argument("static_thread_pool: at least 1 thread is needed");
  try {
    open(control_);
    const char* const epoll = "cannot create an epoll descriptor for the workers of SOME/IP";
    const char* const event = "cannot create an event for the workers of SOME/IP";
    epoll_ = checked(epoll_create1(EPOLL_CLOEXEC), epoll);
    posted_event_ = checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), event);
    stop_event_ = checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), event);
    add(epoll_, posted_event_, EPOLLIN | EPOLLET, posted_id);
    add(epoll_, stop_event_, EPOLLIN, stop_id);
    start(threads_, "someip-control", [this] { control_.run(); });
    for (std::size_t i = 0; i < threads; ++i) {
      char name[16];
      std::snprintf(name, sizeof name, "someip-%u", static_cast<unsigned>(i) % 1000u);
      start(threads_, name, [this] { work(); });
    }
  } catch (...) {
    stop();
    for (const int descriptor : {epoll_, posted_event_, stop_event_}) {
      if (descriptor >= 0) ::close(descriptor);
    }
    throw;
  }
}

static_thread_pool::Loop::~Loop() {
  stop();
  for (const int descriptor : {epoll_, posted_event_, stop_event_})
    ::close(descriptor);
}

void static_thread_pool::Loop::stop() {
  std::call_once(stopped_, [this] {
    stopping_ = true;
    control_.stop();
    signal(stop_event_);
    std::vector<std::thread> threads;
    {
      const std::lock_guard lock(mutex_);
      threads.swap(threads_);
    }
    for (auto& thread : threads)
      thread.join();
    // What is dropped may own things that come back here while they go.
    std::deque<std::function<void()>> posted;
    std::unordered_map<std::uint64_t, std::shared_ptr<someip::Readable>> readers;
    const std::lock_guard lock(mutex_);
    posted.swap(posted_);
    readers.swap(readers_);
  });
}

void static_thread_pool::Loop::post(std::function<void()> work) {
  {
    const std::lock_guard lock(mutex_);
    posted_.push_back(std::move(work));
  }
  signal(posted_event_);
}

someip::Workers::Watch static_thread_pool::Loop::watch(int descriptor,
                                                       std::shared_ptr<someip::Readable> reader) {
  std::uint64_t id = 0;
  {
    const std::lock_guard lock(mutex_);
    id = next_id_++;
    readers_.emplace(id, std::move(reader));
  }
  try {
    add(epoll_, descriptor, EPOLLIN | EPOLLET, id);
  } catch (...) {
    decltype(readers_)::node_type dropped;  // goes after the lock
    const std::lock_guard lock(mutex_);
    dropped = readers_.extract(id);
    throw;
  }
  return Watch{id};
}

bool static_thread_pool::Loop::start_thread(std::function<void()> work) {
  const std::lock_guard lock(mutex_);
  if (stopping_) return false;
  threads_.reserve(threads_.size() + 1);  // else a thread could be made that has no place
  try {
    threads_.emplace_back([work = std::move(work)]() noexcept { work(); });
  } catch (const std::system_error&) {
    return false;
  }
  pthread_setname_np(threads_.back().native_handle(), "someip-receive");
  return true;
}

void static_thread_pool::Loop::unwatch(Watch watch, int descriptor) {
  epoll_ctl(epoll_, EPOLL_CTL_DEL, descriptor, nullptr);
  std::shared_ptr<someip::Readable> reader;  // released after the lock
  const std::lock_guard lock(mutex_);
  const auto found = readers_.find(static_cast<std::uint64_t>(watch));
  if (found == readers_.end()) return;
  reader = std::move(found->second);
  readers_.erase(found);
}

void static_thread_pool::Loop::work() noexcept {
  for (;;) {
    epoll_event event{};
    const int count = epoll_wait(epoll_, &event, 1, -1);
    if (count <= 0) continue;
    switch (event.data.u64) {
      case stop_id:
        return;
      case posted_id:
        run_posted();
        break;
      default:
        run_reader(event.data.u64);
        break;
    }
  }
}

void static_thread_pool::Loop::run_posted() {
  for (;;) {
    std::function<void()> work;
    bool more = false;
    {
      const std::lock_guard lock(mutex_);
      if (posted_.empty() || stopping_) return;
      work = std::move(posted_.front());
      posted_.pop_front();
      more = !posted_.empty();
    }
    // A worker may have seen several posts as one edge: the others must not wait for this one.
    if (more) signal(posted_event_);
    work();
  }
}

void static_thread_pool::Loop::run_reader(std::uint64_t id) {
  std::shared_ptr<someip::Readable> reader;
  {
    const std::lock_guard lock(mutex_);
    const auto found = readers_.find(id);
    if (found == readers_.end()) return;
    reader = found->second;
  }
  reader->on_readable();
}

static_thread_pool::static_thread_pool(std::size_t threads)
    : loop_(std::make_unique<Loop>(threads)) {}
static_thread_pool::~static_thread_pool() = default;
void static_thread_pool::stop() {
  loop_->stop();
}

}  // namespace mw::com
