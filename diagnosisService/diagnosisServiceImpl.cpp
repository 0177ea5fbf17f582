#include "diagnosisService/diagnosisServiceImpl.h"

#include <algorithm>
#include <cmath>
#include <future>
#include <limits>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "diagnosisService/DataIdentifierSkeletonImpl.h"
#include "posService/PositioningRecords.h"

namespace diagnosisService {

namespace {

using lumo::services::positioning::datatypes::DT_positions_struct;
using lumo::services::positioning::datatypes::DT_posMapInfo_struct;
using mw::dm::dem::MonitorActionType;

/// Padded to one width: the lines are read as a table.
constexpr std::array<std::string_view, kInputCount> kSensorLabels{
    "sensor GNSS               ", "sensor BD_Odometrie       ", "sensor Kamera_Position    ",
    "sensor Kamera_Landmarken  ", "sensor TopView_Landmarken ", "sensor Lidar_Landmarken   ",
    "sensor Radar_Landmarken   ", "sensor BD_Karte_PSD       ", "sensor Zeitmaster         ",
    "sensor Kamera_BV_Linien   ", "sensor Kamera_Odometrie   "};

/// An output is bound to a system function: while that is in Error or Init, the output is too.
struct OutputRule {
  std::size_t output;
  std::size_t systemByte;
};
constexpr std::array kOutputRules{OutputRule{0, kSystemMapMatching}, OutputRule{1, kSystemPgf}};

std::string_view actionName(MonitorActionType action) {
  const auto name = mw::dm::dem::nameOf(action);
  return name.empty() ? "unknonw" : name;
}

/// A record of unsigned members whose wire form is `bytes`.
template <class Record, std::size_t Size>
Record recordOf(const std::array<std::uint8_t, Size>& bytes) {
  binding::Cursor cursor{std::as_bytes(std::span{bytes})};
  Record record;
  binding::decode(cursor, record);
  return record;
}

/// The lowest bytes of `value`, most significant first; a value that does not fit becomes the
/// nearest that does.
template <std::size_t Size>
std::array<std::uint8_t, Size> bigEndian(double value, double lowest, double highest) {
  auto rest = static_cast<std::uint64_t>(std::llround(std::clamp(value, lowest, highest)));
  std::array<std::uint8_t, Size> bytes;
  for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte, rest >>= 8U) {
    *byte = static_cast<std::uint8_t>(rest & 0xFFU);
  }
  return bytes;
}
template <std::size_t Size>
std::array<std::uint8_t, Size> signedBigEndian(double value) {
  const auto limit = std::ldexp(1.0, Size * 8 - 1);
  return bigEndian<Size>(value, -limit, limit - 1);
}
template <std::size_t Size>
std::array<std::uint8_t, Size> unsignedBigEndian(double value) {
  return bigEndian<Size>(value, 0, std::ldexp(1.0, Size * 8) - 1);
}

template <class Value>
bool isUsable(const boost::optional<Value>& value) {
  return value && std::isfinite(*value);
}

/// Four bits; 15 stands for absent and for what four bits cannot carry.
unsigned nibble(const boost::optional<std::uint32_t>& value) {
  constexpr unsigned none = 15;
  return value && *value < none ? *value : none;
}

MapMatchedRecord mapMatchedRecord(const DT_positions_struct& position,
                                  const DT_posMapInfo_struct& mapInfo) {
  constexpr std::uint32_t secondsPerDay = 86'400;
  MapMatchedRecord record;
  unsigned valid = 0;
  auto& out = record.position;
  if (isUsable(position.LAT)) {
    out.latitude = signedBigEndian<5>(*position.LAT * 1e9);
    valid |= 1U;
  }
  if (isUsable(position.LON)) {
    out.longitude = signedBigEndian<5>(*position.LON * 1e9);
    valid |= 2U;
  }
  if (isUsable(position.altitudeMeanSeaLevel)) {
    out.altitude = signedBigEndian<3>(*position.altitudeMeanSeaLevel * 100.0);
    valid |= 4U;
  }
  if (const auto seconds = mapInfo.preciseLocalTimeSeconds) {
    const auto hundredths =
        std::min(mapInfo.preciseLocalTimeNanoseconds.value_or(0) / 10'000'000U, 99U);
    out.timeOfDay = unsignedBigEndian<3>((*seconds % secondsPerDay) * 100 + hundredths);
    const std::uint32_t day = *seconds / secondsPerDay;
    record.day = unsignedBigEndian<2>(day);
    valid |= 8U;
  }
  out.state.validity = static_cast<std::uint8_t>(nibble(mapInfo.statusMap) << 4U | valid);
  out.state.matching = static_cast<std::uint8_t>(nibble(mapInfo.positionSource) << 4U |
                                                 nibble(mapInfo.statusMapMatching));
  if (isUsable(position.yawAngle)) {
    const double heading = std::fmod(*position.yawAngle, 360.0);
    record.heading = unsignedBigEndian<2>((heading < 0 ? heading + 360.0 : heading) * 100.0);
  }
  if (isUsable(position.speed2D)) record.speed = unsignedBigEndian<2>(*position.speed2D * 100.0);
  record.messageCounter = static_cast<std::uint8_t>(position.messageCounter.value_or(0) & 0xFFU);
  return record;
}

}  // namespace

struct diagnosisServiceImpl::DataIdentifiers {
  explicit DataIdentifiers(const diagnosisServiceImpl& service)
      : all{service, service, service, service, service, service, service} {}

  template <class Visit>
  void forEach(Visit visit) {
    std::apply([&](auto&... one) { (visit(one), ...); }, all);
  }

  std::tuple<InputsSkeletonImpl,
             OutputsSkeletonImpl,
             MmPosSkeletonImpl,
             SystemSkeletonImpl,
             DbServiceNotAvailableSkeletonImpl,
             DbServiceErrorValRecSkeletonImpl,
             DbServiceImplausibleSkeletonImpl>
      all;
};

diagnosisServiceImpl::diagnosisServiceImpl()
    : logger_{ara::log::CreateLogger("DSRV", "diagnosisServiceImpl class own context")},
      timer_{[this] {
        try {
          evaluate(Clock::now());
        } catch (const std::exception& error) {
          logger_.LogError() << "diagnosisServiceImpl: evaluation failed:" << error.what();
        }
      }} {
  for (auto& last : lastData_)
    last.store(kNotInTable, std::memory_order_relaxed);
}

diagnosisServiceImpl::~diagnosisServiceImpl() {
  stop();
  {
    // A call of InitMonitor may still be on its way to its skeleton, which goes now. Later ones
    // find that the monitors are not offered.
    std::unique_lock lock{offerMutex_};
    sent_.wait(lock, [this] { return sending_ == 0; });
  }
  monitors_.clear();
  identifiers_.reset();
}

void diagnosisServiceImpl::init(std::uint64_t timeoutMs) {
  logger_.LogInfo()
      << "enter diagnosisServiceImpl::init(), set default values, start offering services";
  if (timeoutMs == 0 || timeoutMs > kLongestTimeoutMs) {
    throw std::invalid_argument{"diagnosisServiceImpl::init: time-out of " +
                                std::to_string(timeoutMs) + " ms, expected 1 to " +
                                std::to_string(kLongestTimeoutMs)};
  }
  const std::chrono::microseconds timeout{timeoutMs * 1000};
  {
    const std::lock_guard lock{mutex_};
    block_ = {};
    timeout_ = timeout;
    for (auto& service : requiredServices_)
      service.since = Clock::now();
  }
  for (auto& last : lastData_)
    last.store(kNoData, std::memory_order_relaxed);
  timer_.start(
      std::max(std::chrono::milliseconds{timeout.count() / 10'000}, std::chrono::milliseconds{1}));

  // Only this function sets the member, so the thread that calls it may read it without the lock.
  if (identifiers_ == nullptr) {
    auto identifiers = std::make_unique<DataIdentifiers>(*this);
    const std::lock_guard lock{offerMutex_};
    identifiers_ = std::move(identifiers);
  }
  identifiers_->forEach([](auto& one) { one.OfferService(); });
  // stop() on another thread may have come before these offers.
  if (isStopped()) withdraw();
}

void diagnosisServiceImpl::startMonitors() {
  std::vector<std::unique_ptr<DiagnosticMonitorServiceSkelImpl>> monitors;
  monitors.reserve(kMonitors.size());
  for (const auto& monitor : kMonitors) {
    monitors.push_back(std::make_unique<DiagnosticMonitorServiceSkelImpl>(
        ara::core::InstanceSpecifier{"DiagnosticMonitor_" + std::string{monitor.name}}, *this,
        monitor.identifier));
  }
  {
    const std::lock_guard lock{offerMutex_};
    if (!monitors_.empty()) {
      throw std::logic_error{"diagnosisServiceImpl::startMonitors: called twice"};
    }
    monitors_ = std::move(monitors);
    // Ahead of the offers, so that an InitMonitor that follows the first of them is answered.
    monitorsOffered_ = !stopped_;
  }
  for (const auto& monitor : monitors_)
    monitor->OfferService();
  if (isStopped()) withdraw();
}

bool diagnosisServiceImpl::isStopped() {
  const std::lock_guard lock{offerMutex_};
  return stopped_;
}

void diagnosisServiceImpl::stop() {
  bool again = false;
  {
    const std::lock_guard lock{offerMutex_};
    again = std::exchange(stopped_, true);
    monitorsOffered_ = false;
  }
  timer_.stop();
  if (!again) withdraw();
}

void diagnosisServiceImpl::withdraw() {
  DataIdentifiers* identifiers = nullptr;
  std::span<const std::unique_ptr<DiagnosticMonitorServiceSkelImpl>> monitors;
  {
    const std::lock_guard lock{offerMutex_};
    identifiers = identifiers_.get();
    monitors = monitors_;
  }
  if (identifiers != nullptr) {
    identifiers->forEach([](auto& one) { one.StopOfferService(); });
  }
  for (const auto& monitor : monitors)
    monitor->StopOfferService();
}

void diagnosisServiceImpl::dataReceived(std::uint32_t identifier, Clock::time_point at) noexcept {
  const auto index = monitorIndex(identifier);
  if (index == kNoMonitor) return;
  auto& last = lastData_[index];
  if (last.load(std::memory_order_relaxed) == kNotInTable) return;
  last.store(std::max(at.time_since_epoch().count(), kNoData + 1), std::memory_order_relaxed);
}

void diagnosisServiceImpl::setSystemStatus(std::size_t byte, std::uint8_t status) {
  if (byte >= kSystemCount) {
    throw std::out_of_range{"diagnosisServiceImpl::setSystemStatus: byte " + std::to_string(byte) +
                            ", expected 0 to " + std::to_string(kSystemCount - 1)};
  }
  const std::lock_guard lock{mutex_};
  block_.system[byte] = status;
}

void diagnosisServiceImpl::newSensorSetup(const SensorSetup& setup) {
  {
    const std::lock_guard lock{mutex_};
    sensorSetup_ = setup;
  }
  logger_.LogInfo() << "diagnosisServiceImpl got new sensor setup";
  for (std::size_t sensor = 0; sensor < setup.size(); ++sensor) {
    logger_.LogInfo() << kSensorLabels[sensor] << (setup[sensor] ? "ON" : "OFF");
  }
  // The member and not the argument: another setup may have come while this one was logged.
  const std::lock_guard lock{mutex_};
  for (std::size_t sensor = 0; sensor < sensorSetup_.size(); ++sensor) {
    auto& status = block_.input[sensor];
    if (!sensorSetup_[sensor]) {
      status = kNotAvailable;
    } else if (status != kNominal) {
      status = kInit;
    }
  }
}

void diagnosisServiceImpl::refreshMapMatchedPosition(const DT_positions_struct& position,
                                                     const DT_posMapInfo_struct& mapInfo) {
  const auto record = mapMatchedRecord(position, mapInfo);
  const std::lock_guard lock{mutex_};
  block_.mapMatched = record;
}

MapMatchedRecord diagnosisServiceImpl::mapMatchedPosition() const {
  const std::lock_guard lock{mutex_};
  return block_.mapMatched;
}

void diagnosisServiceImpl::setDataBusFault(DataBusFault fault,
                                           DataBusElement element,
                                           bool present) {
  const std::lock_guard lock{mutex_};
  if (fault == DataBusFault::notAvailable) {
    for (auto& service : requiredServices_) {
      if (service.element == element) service.found = !present;
    }
  }
  enterDataBusFault(fault, element, present);
}

void diagnosisServiceImpl::requireService(DataBusElement service, Clock::time_point since) {
  const std::lock_guard lock{mutex_};
  requiredServices_.push_back({service, since});
}

void diagnosisServiceImpl::enterMissingServices(Clock::time_point now) {
  for (const auto& service : requiredServices_) {
    if (service.found || now - service.since <= timeout_) continue;
    enterDataBusFault(DataBusFault::notAvailable, service.element, true);
  }
}

void diagnosisServiceImpl::enterDataBusFault(DataBusFault fault,
                                             DataBusElement element,
                                             bool present) {
  constexpr std::size_t entrySize = 5;
  const auto number = static_cast<unsigned>(element);
  const auto service = static_cast<std::uint8_t>(number >> 8U);
  const auto field = static_cast<std::uint8_t>(number & 0xFFU);

  auto& record = block_.dataBus[static_cast<std::size_t>(fault)];
  auto& bytes = record.entries;
  std::size_t at = 0;
  while (at < bytes.size() && (bytes[at] != service || bytes[at + 1] != field))
    at += entrySize;
  if (at == bytes.size()) {
    if (!present) return;
    bytes.insert(bytes.end(), {service, field, 0, 0, 0});
  }
  auto& state = bytes[at + 2];
  if ((state != 0) == present) return;
  state = present ? 1 : 0;
  if (!present) return;
  // Counters stay at their end rather than start anew.
  auto* const occurrences = std::as_writable_bytes(std::span{bytes}).data() + at + 3;
  const auto before = binding::load<std::uint16_t>(occurrences, binding::Byte_order::big_endian);
  if (before != std::numeric_limits<std::uint16_t>::max()) {
    binding::store(occurrences, static_cast<std::uint16_t>(before + 1),
                   binding::Byte_order::big_endian);
  }
  if (record.count != std::numeric_limits<std::uint32_t>::max()) ++record.count;
}

std::uint32_t diagnosisServiceImpl::dataBusFaultCount(DataBusFault fault) const {
  const std::lock_guard lock{mutex_};
  return block_.dataBus[static_cast<std::size_t>(fault)].count;
}

void diagnosisServiceImpl::clear(std::uint32_t identifier, Clock::time_point at) {
  const auto index = monitorIndex(identifier);
  if (index == kNoMonitor) return;
  const auto& monitor = kMonitors[index];
  // System functions and the static output are not evaluated, so nothing would bring a cleared
  // Error back.
  const bool clearable =
      monitor.group == StatusGroup::input ||
      (monitor.group == StatusGroup::output && monitor.byte < kOutputRules.size());
  if (!clearable) return;
  const std::lock_guard lock{mutex_};
  auto& status = monitor.group == StatusGroup::input ? block_.input[monitor.byte]
                                                     : block_.output[monitor.byte];
  if (status != kError) return;
  dataReceived(identifier, at);
  status = kNominal;
}

std::uint8_t diagnosisServiceImpl::status(std::uint32_t identifier) const {
  const auto index = monitorIndex(identifier);
  if (index == kNoMonitor) return kNominal;
  const std::lock_guard lock{mutex_};
  const auto& monitor = kMonitors[index];
  switch (monitor.group) {
    case StatusGroup::input:
      return block_.input[monitor.byte];
    case StatusGroup::output:
      return block_.output[monitor.byte];
    case StatusGroup::system:
      return block_.system[monitor.byte];
    case StatusGroup::none:
      break;
  }
  return kNominal;
}

std::uint8_t diagnosisServiceImpl::evaluated(std::size_t monitor,
                                             std::uint8_t status,
                                             Clock::time_point now) const {
  const auto last = lastData_[monitor].load(std::memory_order_relaxed);
  if (last == kNotInTable) return status;
  const bool late = last == kNoData || now - Clock::time_point{Clock::duration{last}} > timeout_;
  switch (status) {
    case kNominal:
    case kError:
      return late ? kError : kNominal;
    case kInit:
      return late ? kInit : kNominal;
    default:
      return status;
  }
}

void diagnosisServiceImpl::evaluate(Clock::time_point now) {
  struct Change {
    const Monitor* monitor;
    std::uint8_t before;
    std::uint8_t after;
  };
  std::array<Change, kInputCount + kOutputRules.size()> changes;
  std::size_t count = 0;
  {
    const std::lock_guard lock{mutex_};
    const auto take = [&](const Monitor& monitor, std::uint8_t& status, std::uint8_t now_is) {
      if (status == now_is) return;
      changes[count++] = {&monitor, status, now_is};
      status = now_is;
    };
    for (std::size_t sensor = 0; sensor < kInputCount; ++sensor) {
      if (!sensorSetup_[sensor]) continue;
      const auto index = monitorIndex(StatusGroup::input, sensor);
      auto& status = block_.input[sensor];
      take(kMonitors[index], status, evaluated(index, status, now));
    }
    for (const auto& rule : kOutputRules) {
      const auto index = monitorIndex(StatusGroup::output, rule.output);
      const auto governing = block_.system[rule.systemByte];
      auto& status = block_.output[rule.output];
      const bool governed = governing == kError || governing == kInit;
      take(kMonitors[index], status, governed ? governing : evaluated(index, status, now));
    }
    enterMissingServices(now);
  }
  for (const auto& change : std::span{changes}.first(count)) {
    logger_.LogInfo() << "Changing of state, ID =" << change.monitor->name
                      << ", prev status =" << statusName(change.before)
                      << ", new status =" << statusName(change.after);
    sendResult(change.monitor->identifier);
  }
}

/// While it lives the destructor waits: what sends needs the object to the end.
class diagnosisServiceImpl::Sending {
 public:
  explicit Sending(diagnosisServiceImpl& service) : service_{service} {
    const std::lock_guard lock{service_.offerMutex_};
    ++service_.sending_;
  }
  ~Sending() {
    const std::lock_guard lock{service_.offerMutex_};
    --service_.sending_;
    service_.sent_.notify_all();
  }
  Sending(const Sending&) = delete;
  Sending& operator=(const Sending&) = delete;

 private:
  diagnosisServiceImpl& service_;
};

void diagnosisServiceImpl::sendResult(std::uint32_t identifier) {
  const Sending sending{*this};
  const auto result = [this, identifier] {
    return status(identifier) == kError ? MonitorActionType::kFailed : MonitorActionType::kPassed;
  };
  try {
    // Two senders of one monitor may overtake each other, and the event manager keeps what comes
    // last. Whoever finds another result after its event has left sends that one too, so the last
    // event tells the last status. Each further round takes a change of the status meanwhile.
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
  const auto index = monitorIndex(identifier);
  DiagnosticMonitorServiceSkelImpl* skeleton = nullptr;
  {
    const std::lock_guard lock{offerMutex_};
    if (monitorsOffered_ && index != kNoMonitor) skeleton = monitors_[index].get();
  }
  if (skeleton == nullptr) {
    logger_.LogInfo() << "diagnosticMonitorServiceImpl::sendEvent(): ignore, skeleton not ready "
                         "yet!";
    return;
  }
  logger_.LogInfo() << "diagnosticMonitorServiceImpl::sendEvent(), "
                    << "id " << identifier << " (0x" << ara::log::HexFormat(identifier) << ")"
                    << " = " << kMonitors[index].name << ", action "
                    << static_cast<std::uint8_t>(action) << " = " << actionName(action);
  skeleton->MonitorAction.Send(action);
}

template <class Output>
Output diagnosisServiceImpl::read() const {
  const std::lock_guard lock{mutex_};
  if constexpr (std::is_same_v<Output, diag::PositioningStatusInputs>) {
    return recordOf<Output>(block_.input);
  } else if constexpr (std::is_same_v<Output, diag::PositioningStatusOutputs>) {
    return recordOf<Output>(block_.output);
  } else if constexpr (std::is_same_v<Output, diag::PositioningStatusSystem>) {
    return recordOf<Output>(block_.system);
  } else if constexpr (std::is_same_v<Output, diag::PositioningMMPos>) {
    return block_.mapMatched.position;
  } else {
    return {block_.dataBus[static_cast<std::size_t>(Output::fault)].entries};
  }
}

template diag::PositioningStatusInputs diagnosisServiceImpl::read() const;
template diag::PositioningStatusOutputs diagnosisServiceImpl::read() const;
template diag::PositioningMMPos diagnosisServiceImpl::read() const;
template diag::PositioningStatusSystem diagnosisServiceImpl::read() const;
template diag::BDPSomeipDataBusServiceNotAvailable diagnosisServiceImpl::read() const;
template diag::BDPSomeipDataBusServiceErrorValueReceived diagnosisServiceImpl::read() const;
template diag::BDPSomeipDataBusServiceImplausible diagnosisServiceImpl::read() const;

}  // namespace diagnosisService
