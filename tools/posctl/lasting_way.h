/// The way of a program that looks at the application for long.
#pragma once

#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "mw/com/runtime.h"
#include "tools/command.h"
#include "tools/posctl/way.h"

namespace posctl {

/// A way to the application and the Look along it. The program may start before the application.
/// Until the application is there, each renew() chooses the way anew: its socket or the address of
/// the machine may be new. One thread calls.
template <class Look>
class Lasting_way {
 public:
  /// Each throws std::runtime_error while there is no such way.
  using Choices = std::vector<std::function<Possible_way()>>;
  using Make = std::function<std::unique_ptr<Look>(const Possible_way&)>;

  /// `choices` are in the order of preference. `make` makes the Look in the runtime of a way. Call
  /// renew() next.
  Lasting_way(Choices choices, Make make) : choices_{std::move(choices)}, make_{std::move(make)} {}

  /// Takes the first way that can be taken. Keeps the present one, and its Look, if that is the
  /// first, or if none can be opened. If the Look of an opened way cannot be made, the present one
  /// is gone and the next way is tried.
  /// Reports each new problem on standard error. Throws tools::Usage_error.
  void renew() {
    std::string problem;
    for (std::size_t rank = 0; rank < choices_.size(); ++rank) {
      try {
        take(choices_[rank]());
        rank_ = rank;
        problem_.clear();
        return;
      } catch (const tools::Usage_error&) {
        throw;
      } catch (const std::runtime_error& error) {
        problem = error.what();
      }
    }
    if (std::exchange(problem_, problem) != problem)
      std::fprintf(stderr, "posctl: no way to the application: %s\n", problem.c_str());
  }

  /// Null until a way has been taken.
  [[nodiscard]] Look* look() { return look_.get(); }
  [[nodiscard]] bool is_first_choice() const { return look_ && rank_ == 0; }
  /// As Possible_way::text; empty until a way has been taken.
  [[nodiscard]] std::string text() const { return look_ ? taken_.text : ""; }
  /// Why the last renew() found no way; empty: it did.
  [[nodiscard]] const std::string& problem() const { return problem_; }

 private:
  void take(const Possible_way& possible) {
    if (look_ && taken_.is_same(possible)) {
      taken_.text = possible.text;
      return;
    }
    auto runtime = open_way(possible);
    look_.reset();
    runtime_.emplace(std::move(runtime));
    try {
      look_ = make_(possible);
    } catch (...) {
      runtime_.reset();
      throw;
    }
    taken_ = possible;
  }

  const Choices choices_;
  const Make make_;
  std::size_t rank_ = 0;
  std::string problem_;
  Possible_way taken_;  ///< of look_
  std::optional<mw::com::runtime::Component_singleton> runtime_;
  std::unique_ptr<Look> look_;
};

}  // namespace posctl
