/// The results of the checks of posctl doctor.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace posctl::doctor {

enum class Severity : std::uint8_t {
  fault,  ///< keeps positions or a function from working
  note,   ///< normal on a developer's machine, worth knowing in a vehicle
};

struct Finding {
  Severity severity = Severity::fault;
  std::string check;     ///< its name in the table
  std::string text;      ///< the fault in plain words
  std::string evidence;  ///< the observation behind it
  std::string cure;      ///< a command, or the place to change
};

/// Collects the findings of one check after the other.
class Findings {
 public:
  /// The check that adds findings from now on.
  void begin(std::string check) { check_ = std::move(check); }
  void fault(std::string text, std::string evidence, std::string cure) {
    all_.push_back(
        {Severity::fault, check_, std::move(text), std::move(evidence), std::move(cure)});
  }
  void note(std::string text, std::string evidence, std::string cure) {
    all_.push_back({Severity::note, check_, std::move(text), std::move(evidence), std::move(cure)});
  }
  [[nodiscard]] const std::vector<Finding>& all() const { return all_; }

 private:
  std::string check_;
  std::vector<Finding> all_;
};

}  // namespace posctl::doctor
