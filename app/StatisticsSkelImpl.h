/// The provided instance of the Statistics service.
#pragma once

#include <memory>

#include "app/Statistics.h"

class StatisticsSkelImpl : public mw::com::runtime::skeleton::StatisticsSkeleton {
 public:
  /// The instance "Statistics_ProvidedSomeipServiceInstance". Throws std::runtime_error when the
  /// manifest does not have it.
  StatisticsSkelImpl();
  ~StatisticsSkelImpl() override { disconnect(); }

  /// Every counter of this process's runtime.
  ara::core::Future<std::vector<mw::com::runtime::Counter>> Counters() override;
  ara::core::Future<mw::com::runtime::Process_usage> Process() override;
};

/// Offers the service until the result is destroyed. None when the manifest does not deploy it:
/// a vehicle may leave it out.
[[nodiscard]] std::unique_ptr<StatisticsSkelImpl> offerStatistics();
