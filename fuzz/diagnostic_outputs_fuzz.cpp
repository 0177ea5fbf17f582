// What the data identifiers answer and the monitors exchange, as the other side reads it.
#include "diagnosisService/DataIdentifiers.h"
#include "diagnosisService/DiagnosticMonitor.h"
#include "fuzz/codec_promises.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace lumo::services::diag;
  fuzz::Codec_types<PositioningStatusInputs, PositioningStatusOutputs, PositioningMMPos,
                    PositioningStatusSystem, BDPSomeipDataBusServiceNotAvailable,
                    BDPSomeipDataBusServiceErrorValueReceived, BDPSomeipDataBusServiceImplausible,
                    mw::dm::dem::InitMonitorReason, mw::dm::dem::MonitorActionType>::check(data,
                                                                                           size);
  return 0;
}
