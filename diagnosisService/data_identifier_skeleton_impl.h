/// The implementations of the data identifiers: Read copies the diagnosis service's output at the
/// moment of the call.
#pragma once

#include <string>

#include "diagnosisService/data_identifiers.h"
#include "diagnosisService/diagnosisServiceImpl.h"

namespace diagnosisService {

template <class Interface>
class DataIdentifierSkeletonImpl : public lumo::services::diag::DataIdentifierSkeleton<Interface> {
  using Base = lumo::services::diag::DataIdentifierSkeleton<Interface>;
  using MetaInfo = lumo::services::diag::MetaInfo;

 public:
  /// `service` must outlive this object.
  explicit DataIdentifierSkeletonImpl(const diagnosisServiceImpl& service)
      : Base{ara::core::InstanceSpecifier{
            std::string{mw::com::cpp_binding::short_name(Interface::name)} +
            "_ProvidedSomeipServiceInstance"}},
        service_{service} {}
  ~DataIdentifierSkeletonImpl() override { this->disconnect(); }

  ara::core::Future<typename Base::Output> Read(const MetaInfo&) override {
    ara::core::Promise<typename Base::Output> promise;
    promise.set_value(service_.template read<typename Base::Output>());
    return promise.get_future();
  }
  /// A Read is answered at once, so there is never one to cancel.
  ara::core::Future<void> Cancel(const MetaInfo&) override {
    ara::core::Promise<void> promise;
    promise.set_value();
    return promise.get_future();
  }

 private:
  const diagnosisServiceImpl& service_;
};

namespace diag = lumo::services::diag;

using InputsSkeletonImpl =
    DataIdentifierSkeletonImpl<diag::d_14a0::DataIdentifier_PositioningStatusInputs>;
using OutputsSkeletonImpl =
    DataIdentifierSkeletonImpl<diag::d_14a1::DataIdentifier_PositioningStatusOutputs>;
using MmPosSkeletonImpl = DataIdentifierSkeletonImpl<diag::d_14a2::DataIdentifier_PositioningMMPos>;
using SystemSkeletonImpl =
    DataIdentifierSkeletonImpl<diag::d_14a3::DataIdentifier_PositioningStatusSystem>;
using DbServiceNotAvailableSkeletonImpl =
    DataIdentifierSkeletonImpl<diag::d_1190::DataIdentifier_BDPSomeipDataBusServiceNotAvailable>;
using DbServiceErrorValRecSkeletonImpl = DataIdentifierSkeletonImpl<
    diag::d_1191::DataIdentifier_BDPSomeipDataBusServiceErrorValueReceived>;
using DbServiceImplausibleSkeletonImpl =
    DataIdentifierSkeletonImpl<diag::d_1192::DataIdentifier_BDPSomeipDataBusServiceImplausible>;

}  // namespace diagnosisService
