#include "diagnosisService/diagnosisServiceImpl.h"

#include <algorithm>
#include <future>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "diagnosisService/data_identifier_skeleton_impl.h"

namespace diagnosisService {

namespace {

using mw::dm::dem::MonitorActionType;

/// Padded to one width, because the lines are read as a table.
constexpr std::array<std::string_view, input_count> sensor_labels{
    "sensor GNSS               ", "sensor BD_Odometrie       ", "sensor Kamera_Position    ",
    "sensor Kamera_Landmarken  ", "sensor TopView_Landmarken ", "sensor Lidar_Landmarken   ",
    "sensor Radar_Landmarken   ", "sensor BD_Karte_PSD       ", "sensor Zeitmaster         ",
    "sensor Kamera_BV_Linien   ", "sensor Kamera_Odometrie   "};

/// Tools that read this log look for this spelling of an unknown value.
template <class Enumeration>
std::string_view name_or_unknown(Enumeration value) {
  const auto name = binding::name_of(value);
  return name.empty() ? "unknonw" : name;
}

/// A record of unsigned members whose encoded form is `bytes`.
template <class Record, std::size_t Size>
Record record_of(const std::array<std::uint8_t, Size>& bytes) {
  binding::Cursor cursor{std::as_bytes(std::span{bytes})};
  Record record;
  binding::decode(cursor, record);
  return record;
}

/// The entries as a record carries them, one behind the other.
std::vector<std::uint8_t> bytes_of(const std::vector<Fault_entry>& entries) {
  binding::Buffer encoded;
  for (const Fault_entry& entry : entries)
    binding::encode(entry, encoded);
  std::vector<std::uint8_t> bytes(encoded.size());
  std::ranges::transform(encoded, bytes.begin(),
                         [](std::byte one) { return std::to_integer<std::uint8_t>(one); });
  return bytes;
}

}  // namespace

/// One skeleton for each interface of the list.
template <class List>
struct Skeletons;
template <class... Interfaces>
struct Skeletons<std::tuple<Interfaces...>> {
  /// `reader.operator()<Output>()` returns an output.
  template <class Reader>
  explicit Skeletons(Reader reader)
      : all{[reader] { return reader.template operator()<typename Interfaces::Output>(); }...} {}

  std::tuple<Data_identifier_skeleton_impl<Interfaces>...> all;
};

struct diagnosisServiceImpl::Data_identifiers : Skeletons<diag::Data_identifiers> {
  explicit Data_identifiers(const diagnosisServiceImpl& service)
      : Skeletons{[&service]<class Output>() { return service.read<Output>(); }} {}

  template <class Visit>
  void for_each(Visit visit) {
    std::apply([&](auto&... one) { (visit(one), ...); }, all);
  }
};

diagnosisServiceImpl::diagnosisServiceImpl()
    : logger_{ara::log::CreateLogger("DSRV", "diagnosisServiceImpl class own context")},
      timer_{[this] {
        try {
          evaluate(Clock::now());
        } catch (const std::exception& error) {
          logger_.LogError() << "diagnosisServiceImpl: evaluation failed:" << error.what();
        }
      }} {}

diagnosisServiceImpl::~diagnosisServiceImpl() {
  stop();
  {
    // A call of InitMonitor may still be on its way to its skeleton, which is destroyed here. Later
    // calls find the monitors not offered.
    std::unique_lock lock{offer_mutex_};
    sent_.wait(lock, [this] { return sending_ == 0; });
  }
  monitors_.clear();
  identifiers_.reset();
}

void diagnosisServiceImpl::init(std::uint64_t timeout_ms) {
  logger_.LogInfo()
      << "enter diagnosisServiceImpl::init(), set default values, start offering services";
  if (timeout_ms == 0 || timeout_ms > longest_timeout_ms) {
    throw std::invalid_argument{"diagnosisServiceImpl::init: time-out of " +
                                std::to_string(timeout_ms) + " ms, expected 1 to " +
                                std::to_string(longest_timeout_ms)};
  }
  const std::chrono::microseconds timeout{timeout_ms * 1000};
  {
    const std::lock_guard lock{mutex_};
    book_.reset(timeout);
    faults_.reset(timeout, Clock::now());
    map_matched_ = {};
  }
  timer_.start(
      std::max(std::chrono::milliseconds{timeout.count() / 10'000}, std::chrono::milliseconds{1}));

  // Only this function sets the member, so its thread may read it without the lock.
  if (identifiers_ == nullptr) {
    auto identifiers = std::make_unique<Data_identifiers>(*this);
    const std::lock_guard lock{offer_mutex_};
    identifiers_ = std::move(identifiers);
  }
  identifiers_->for_each([](auto& one) { one.OfferService(); });
  // stop() on another thread may have preceded these offers.
  if (is_stopped()) withdraw();
}

void diagnosisServiceImpl::start_monitors() {
  std::vector<std::unique_ptr<DiagnosticMonitorServiceSkelImpl>> monitors;
  monitors.reserve(monitor_table.size());
  for (const auto& monitor : monitor_table) {
    monitors.push_back(std::make_unique<DiagnosticMonitorServiceSkelImpl>(
        ara::core::InstanceSpecifier{"DiagnosticMonitor_" + std::string{monitor.name}}, *this,
        monitor.identifier));
  }
  {
    const std::lock_guard lock{offer_mutex_};
    if (!monitors_.empty()) {
      throw std::logic_error{"diagnosisServiceImpl::start_monitors: called twice"};
    }
    monitors_ = std::move(monitors);
    // Set ahead of the offers, so that an InitMonitor after the first offer is answered.
    monitors_offered_ = !stopped_;
  }
  for (const auto& monitor : monitors_)
    monitor->OfferService();
  if (is_stopped()) withdraw();
}

bool diagnosisServiceImpl::is_stopped() {
  const std::lock_guard lock{offer_mutex_};
  return stopped_;
}

void diagnosisServiceImpl::stop() {
  bool again = false;
  {
    const std::lock_guard lock{offer_mutex_};
    again = std::exchange(stopped_, true);
    monitors_offered_ = false;
  }
  timer_.stop();
  if (!again) withdraw();
}

void diagnosisServiceImpl::withdraw() {
  Data_identifiers* identifiers = nullptr;
  std::span<const std::unique_ptr<DiagnosticMonitorServiceSkelImpl>> monitors;
  {
    const std::lock_guard lock{offer_mutex_};
    identifiers = identifiers_.get();
    monitors = monitors_;
  }
  if (identifiers != nullptr) {
    identifiers->for_each([](auto& one) { one.StopOfferService(); });
  }
  for (const auto& monitor : monitors)
    monitor->StopOfferService();
}

void diagnosisServiceImpl::data_received(std::uint32_t identifier, Clock::time_point at) noexcept {
  book_.data_received(identifier, at);
}

void diagnosisServiceImpl::set_system_status(std::size_t byte, std::uint8_t status) {
  const std::lock_guard lock{mutex_};
  book_.set_system_status(byte, status);
}

void diagnosisServiceImpl::new_sensor_setup(const Sensor_setup& setup) {
  {
    const std::lock_guard lock{mutex_};
    book_.set_sensor_setup(setup);
  }
  logger_.LogInfo() << "diagnosisServiceImpl got new sensor setup";
  for (std::size_t sensor = 0; sensor < setup.size(); ++sensor) {
    logger_.LogInfo() << sensor_labels[sensor] << (setup[sensor] ? "ON" : "OFF");
  }
  // Of two simultaneous setups, the last one holds for both flags and statuses.
  const std::lock_guard lock{mutex_};
  book_.apply_sensor_setup();
}

void diagnosisServiceImpl::refresh_map_matched_position(const Map_matched_position& position) {
  const auto record = map_matched_record(position);
  const std::lock_guard lock{mutex_};
  map_matched_ = record;
}

Map_matched_record diagnosisServiceImpl::map_matched_position() const {
  const std::lock_guard lock{mutex_};
  return map_matched_;
}

void diagnosisServiceImpl::set_data_bus_fault(Data_bus_fault fault,
                                              Data_bus_element element,
                                              bool present) {
  const std::lock_guard lock{mutex_};
  faults_.set(fault, element, present);
}

void diagnosisServiceImpl::require_service(Data_bus_element service, Clock::time_point since) {
  const std::lock_guard lock{mutex_};
  faults_.require(service, since);
}

std::uint32_t diagnosisServiceImpl::data_bus_fault_count(Data_bus_fault fault) const {
  const std::lock_guard lock{mutex_};
  return faults_.count(fault);
}

void diagnosisServiceImpl::clear(std::uint32_t identifier, Clock::time_point at) {
  const std::lock_guard lock{mutex_};
  book_.clear(identifier, at);
}

std::uint8_t diagnosisServiceImpl::status(std::uint32_t identifier) const {
  const std::lock_guard lock{mutex_};
  return book_.status(identifier);
}

void diagnosisServiceImpl::evaluate(Clock::time_point now) {
  std::vector<Status_book::Change> changes;
  {
    const std::lock_guard lock{mutex_};
    changes = book_.evaluate(now);
    faults_.enter_missing(now);
  }
  for (const auto& change : changes) {
    logger_.LogInfo() << "Changing of state, ID =" << change.monitor->name
                      << ", prev status =" << name_or_unknown(Status{change.before})
                      << ", new status =" << name_or_unknown(Status{change.after});
    send_result(change.monitor->identifier);
  }
}

/// During its life the destructor of the service waits: a sender needs the object to the end.
class diagnosisServiceImpl::Sending {
 public:
  explicit Sending(diagnosisServiceImpl& service) : service_{service} {
    const std::lock_guard lock{service_.offer_mutex_};
    ++service_.sending_;
  }
  ~Sending() {
    const std::lock_guard lock{service_.offer_mutex_};
    --service_.sending_;
    service_.sent_.notify_all();
  }
  Sending(const Sending&) = delete;
  Sending& operator=(const Sending&) = delete;

 private:
  diagnosisServiceImpl& service_;
};

void diagnosisServiceImpl::send_result(std::uint32_t identifier) {
  const Sending sending{*this};
  const auto result = [this, identifier] {
    return status(identifier) == Status::error ? MonitorActionType::kFailed
                                               : MonitorActionType::kPassed;
  };
  try {
    // Two senders of one monitor may overtake each other, and the event manager keeps the last
    // event. A sender that finds another result after its event has left sends that one too. So the
    // last event carries the last status. A further round needs another change of the status
    // meanwhile.
    std::optional<MonitorActionType> sent;
    for (auto action = result(); action != sent; action = result()) {
      std::async(std::launch::async | std::launch::deferred, [this, identifier, action] {
        sendEvent(identifier, action);
      }).get();
      sent = action;
    }
  } catch (const std::exception& error) {
    logger_.LogError() << "diagnosticMonitorServiceImpl::sendEvent(): failed:" << error.what();
  }
}

void diagnosisServiceImpl::sendEvent(std::uint32_t identifier, MonitorActionType action) {
  const Sending sending{*this};
  const auto index = monitor_index(identifier);
  DiagnosticMonitorServiceSkelImpl* skeleton = nullptr;
  {
    const std::lock_guard lock{offer_mutex_};
    if (monitors_offered_ && index != no_monitor) skeleton = monitors_[index].get();
  }
  if (skeleton == nullptr) {
    logger_.LogInfo() << "diagnosticMonitorServiceImpl::sendEvent(): ignore, skeleton not ready "
                         "yet!";
    return;
  }
  logger_.LogInfo() << "diagnosticMonitorServiceImpl::sendEvent(), "
                    << "id " << identifier << " (0x" << ara::log::HexFormat(identifier) << ")"
                    << " = " << monitor_table[index].name << ", action "
                    << static_cast<std::uint8_t>(action) << " = " << name_or_unknown(action);
  skeleton->MonitorAction.Send(action);
}

binding::Diagnosis_state diagnosisServiceImpl::state(Clock::time_point now) const {
  const auto ago = [now](Clock::time_point since) {
    const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(now - since).count();
    return static_cast<std::uint64_t>(std::max<std::int64_t>(passed, 0));
  };
  binding::Diagnosis_state state;
  const std::lock_guard lock{mutex_};
  const auto add = [&](Status_group group, const auto& bytes) {
    std::uint8_t byte = 0;
    for (const auto status : bytes) {
      state.statuses.push_back(
          {static_cast<std::uint8_t>(group), byte, status, ago(book_.since(group, byte))});
      ++byte;
    }
  };
  add(Status_group::input, book_.inputs());
  add(Status_group::output, book_.outputs());
  add(Status_group::system, book_.system());
  for (const auto& [kind, name] : binding::enumerators<Data_bus_fault>) {
    auto since = faults_.since(kind).begin();
    for (const Fault_entry& entry : faults_.entries(kind)) {
      state.faults.push_back({static_cast<std::uint8_t>(kind),
                              static_cast<std::uint8_t>(entry.service), entry.element,
                              entry.present, entry.occurrences, ago(*since++)});
    }
  }
  return state;
}

template <class Output>
Output diagnosisServiceImpl::read() const {
  const std::lock_guard lock{mutex_};
  if constexpr (std::is_same_v<Output, diag::PositioningStatusInputs>) {
    return record_of<Output>(book_.inputs());
  } else if constexpr (std::is_same_v<Output, diag::PositioningStatusOutputs>) {
    return record_of<Output>(book_.outputs());
  } else if constexpr (std::is_same_v<Output, diag::PositioningStatusSystem>) {
    return record_of<Output>(book_.system());
  } else if constexpr (std::is_same_v<Output, diag::PositioningMMPos>) {
    return map_matched_.position;
  } else {
    return {bytes_of(faults_.entries(Output::fault))};
  }
}

}  // namespace diagnosisService
