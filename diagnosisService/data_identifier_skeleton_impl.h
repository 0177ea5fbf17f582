/// The implementations of the data identifiers: Read returns the diagnosis service's output at the
/// moment of the call.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "diagnosisService/data_identifiers.h"

namespace diagnosisService {

template <class Interface>
class Data_identifier_skeleton_impl
    : public lumo::services::diag::Data_identifier_skeleton<Interface> {
  using Base = lumo::services::diag::Data_identifier_skeleton<Interface>;
  using Meta_info = lumo::services::diag::Meta_info;

 public:
  using Reader = std::function<typename Base::Output()>;

  /// Calls of Read call `reader`, several at the same time.
  explicit Data_identifier_skeleton_impl(Reader reader)
      : Base{ara::core::InstanceSpecifier{
            std::string{mw::com::cpp_binding::short_name(Interface::name)} +
            "_ProvidedSomeipServiceInstance"}},
        reader_{std::move(reader)} {}
  ~Data_identifier_skeleton_impl() override { this->disconnect(); }

  ara::core::Future<typename Base::Output> Read(const Meta_info&) override {
    ara::core::Promise<typename Base::Output> promise;
    promise.set_value(reader_());
    return promise.get_future();
  }
  /// A Read is answered at once, so there is never one to cancel.
  ara::core::Future<void> Cancel(const Meta_info&) override {
    ara::core::Promise<void> promise;
    promise.set_value();
    return promise.get_future();
  }

 private:
  const Reader reader_;
};

namespace diag = lumo::services::diag;

using InputsSkeletonImpl =
    Data_identifier_skeleton_impl<diag::d_14a0::DataIdentifier_PositioningStatusInputs>;
using OutputsSkeletonImpl =
    Data_identifier_skeleton_impl<diag::d_14a1::DataIdentifier_PositioningStatusOutputs>;
using MmPosSkeletonImpl =
    Data_identifier_skeleton_impl<diag::d_14a2::DataIdentifier_PositioningMMPos>;
using SystemSkeletonImpl =
    Data_identifier_skeleton_impl<diag::d_14a3::DataIdentifier_PositioningStatusSystem>;
using DbServiceNotAvailableSkeletonImpl =
    Data_identifier_skeleton_impl<diag::d_1190::DataIdentifier_BDPSomeipDataBusServiceNotAvailable>;
using DbServiceErrorValRecSkeletonImpl = Data_identifier_skeleton_impl<
    diag::d_1191::DataIdentifier_BDPSomeipDataBusServiceErrorValueReceived>;
using DbServiceImplausibleSkeletonImpl =
    Data_identifier_skeleton_impl<diag::d_1192::DataIdentifier_BDPSomeipDataBusServiceImplausible>;

}  // namespace diagnosisService
