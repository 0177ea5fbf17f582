#include <algorithm>
#include <array>
#include <deque>
#include <random>
#include <utility>

#include "tools/from_seconds.h"
#include "tools/gnss-gateway/fault.h"

namespace gateway::faults {
namespace {

constexpr std::array<std::string_view, 4> silent_words{"all", "positions", "positionsQuality",
                                                       "posGnssSatInfos"};
constexpr std::array<std::string_view, 4> malformation_words{"truncated", "length", "wire-type",
                                                             "noise"};

/// Withdraws the service. Its notifications reach nobody.
class Off final : public Fault {
 public:
  void pass(Fault_time, Message, const Sink&) override {}
  [[nodiscard]] Service_fault service() const override {
    return {.off = true, .second_north_m = {}};
  }
};

class Second_provider final : public Fault {
 public:
  explicit Second_provider(double north_m) : north_m_(north_m) {}
  void pass(Fault_time, Message message, const Sink& next) override { next(std::move(message)); }
  [[nodiscard]] Service_fault service() const override {
    return {.off = false, .second_north_m = north_m_};
  }

 private:
  const double north_m_;
};

/// A fault without a state of its own.
template <class Pass>
class Passing final : public Fault {
 public:
  explicit Passing(Pass pass) : pass_(std::move(pass)) {}
  void pass(Fault_time, Message message, const Sink& next) override {
    pass_(std::move(message), next);
  }

 private:
  Pass pass_;
};

template <class Pass>
std::unique_ptr<Fault> passing(Pass pass) {
  return std::make_unique<Passing<Pass>>(std::move(pass));
}

/// Holds messages until they are due, in their order.
class Holding : public Fault {
 public:
  void pass(Fault_time now, Message message, const Sink& next) override {
    last_due_ = std::max(last_due_, due(now));
    held_.push_back({last_due_, std::move(message)});
    while (held_.size() > max_held)
      pass_first(next);
  }
  void release(Fault_time now, const Sink& next) override {
    while (!held_.empty() && held_.front().first <= now)
      pass_first(next);
  }
  [[nodiscard]] Fault_time next_release() const override {
    return held_.empty() ? Fault_time::max() : held_.front().first;
  }

 private:
  /// The time at which a message of `now` is due.
  virtual Fault_time due(Fault_time now) = 0;

  void pass_first(const Sink& next) {
    auto message = std::move(held_.front().second);
    held_.pop_front();
    next(std::move(message));
  }

  /// Beyond this number the oldest message goes at once: 60 s at 17 Hz.
  static constexpr std::size_t max_held = 1024;
  std::deque<std::pair<Fault_time, Message>> held_;
  Fault_time last_due_{};
};

class Delay final : public Holding {
 public:
  explicit Delay(Fault_time delay) : delay_(delay) {}

 private:
  Fault_time due(Fault_time now) override { return now + delay_; }
  const Fault_time delay_;
};

class Jitter final : public Holding {
 public:
  explicit Jitter(Fault_time most) : most_(most) {}

 private:
  Fault_time due(Fault_time now) override {
    std::uniform_int_distribution<Fault_time::rep> delay(0, most_.count());
    return now + Fault_time(delay(random_));
  }
  const Fault_time most_;
  std::minstd_rand random_{1};
};

/// Silent for a period, then everything at once.
class Burst final : public Holding {
 public:
  Burst(Fault_time period, Fault_time start) : period_(period), start_(start) {}

 private:
  Fault_time due(Fault_time now) override {
    return start_ + ((now - start_) / period_ + 1) * period_;
  }
  const Fault_time period_;
  const Fault_time start_;
};

/// Swaps the messages of each pair.
class Reorder final : public Fault {
 public:
  void pass(Fault_time, Message message, const Sink& next) override {
    if (!held_) {
      held_ = std::move(message);
      return;
    }
    next(std::move(message));
    next(*std::exchange(held_, std::nullopt));
  }
  /// Until the partner comes nothing is due, except at the end of the fault.
  void release(Fault_time now, const Sink& next) override {
    if (now == Fault_time::max() && held_) next(*std::exchange(held_, std::nullopt));
  }

 private:
  std::optional<Message> held_;
};

}  // namespace

std::span<const std::string_view> silent_fields() {
  return silent_words;
}

std::span<const std::string_view> malformations() {
  return malformation_words;
}

std::unique_ptr<Fault> make_off(const Fault_value&, Fault_time) {
  return std::make_unique<Off>();
}

std::unique_ptr<Fault> make_silence(const Fault_value& value, Fault_time) {
  return passing([field = silent_words.at(value.choice)](Message message, const Fault::Sink& next) {
    const auto is_silent = [field](std::string_view name) {
      return field == "all" || field == name;
    };
    if (is_silent("positions")) message.content.positions.clear();
    if (is_silent("positionsQuality")) message.content.quality.clear();
    if (is_silent("posGnssSatInfos")) message.content.satellites.reset();
    next(std::move(message));
  });
}

std::unique_ptr<Fault> make_loss(const Fault_value& value, Fault_time) {
  return passing([share = value.number / 100, random = std::minstd_rand(1)](
                     Message message, const Fault::Sink& next) mutable {
    if (!std::bernoulli_distribution(share)(random)) next(std::move(message));
  });
}

std::unique_ptr<Fault> make_delay(const Fault_value& value, Fault_time) {
  return std::make_unique<Delay>(tools::from_seconds(value.number));
}

std::unique_ptr<Fault> make_jitter(const Fault_value& value, Fault_time) {
  return std::make_unique<Jitter>(tools::from_seconds(value.number));
}

std::unique_ptr<Fault> make_burst(const Fault_value& value, Fault_time start) {
  return std::make_unique<Burst>(tools::from_seconds(value.number), start);
}

std::unique_ptr<Fault> make_duplicate(const Fault_value&, Fault_time) {
  return passing([](const Message& message, const Fault::Sink& next) {
    next(message);
    next(message);
  });
}

std::unique_ptr<Fault> make_reorder(const Fault_value&, Fault_time) {
  return std::make_unique<Reorder>();
}

std::unique_ptr<Fault> make_second_provider(const Fault_value& value, Fault_time) {
  return std::make_unique<Second_provider>(value.number);
}

std::unique_ptr<Fault> make_malformed(const Fault_value& value, Fault_time) {
  const auto malformation = static_cast<Malformation>(value.choice + 1);
  return passing([malformation](Message message, const Fault::Sink& next) {
    message.malformation = malformation;
    next(std::move(message));
  });
}

}  // namespace gateway::faults
