/// Faults in the content of a well-formed notification.
#pragma once

#include <functional>
#include <vector>

#include "clients/gnss_records.h"
#include "clients/time_records.h"

namespace clients {

struct Data_faults {
  bool error_value = false;  ///< a quantity has the valueType Error
  bool implausible = false;  ///< a value contradicts its definition, see data_faults()

  Data_faults& operator|=(const Data_faults& more) {
    error_value |= more.error_value;
    implausible |= more.implausible;
    return *this;
  }
  friend bool operator==(const Data_faults&, const Data_faults&) = default;
};

/// Implausible are a valueType outside its enumeration, and a physical value that is absent or not
/// a finite number. So are a latitude or longitude off the globe, and a fraction of a second of one
/// second or more.
[[nodiscard]] Data_faults data_faults(
    const lumo::services::gnss::datatypes::DT_positions_struct& record);
[[nodiscard]] Data_faults data_faults(
    const lumo::services::gnss::datatypes::DT_positionsQuality_struct& record);
[[nodiscard]] Data_faults data_faults(
    const lumo::services::gnss::datatypes::DT_posGnssSatInfos_struct& record);
[[nodiscard]] Data_faults data_faults(
    const lumo::services::time::datatypes::DT_times_struct& record);

/// Follows the notifications of one field and reports when their faults appear or disappear.
/// Examines one notification at a time.
class Fault_watch {
 public:
  using Callback = std::function<void(const Data_faults&)>;

  /// Without a callback no notification is examined.
  void set_callback(Callback changed) { changed_ = std::move(changed); }

  /// The faults of a notification are those of its records.
  template <class Record>
  void look(const std::vector<Record>& records) {
    if (!changed_) return;
    Data_faults found;
    for (const auto& record : records)
      found |= data_faults(record);
    if (found == present_) return;
    present_ = found;
    changed_(found);
  }

 private:
  Callback changed_;
  Data_faults present_;
};

}  // namespace clients
