/// What communication runtimes without a network share, in tests and benchmarks: while one lives it
/// is the process's runtime, and whoever holds it decides what a search finds.
#pragma once

#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tq/com/runtime.h"

class Played_runtime : public tq::com::Runtime {
 public:
  Played_runtime();
  ~Played_runtime() override;

  /// Gives the running search a result: these instances of the service that was asked for last.
  void find(std::initializer_list<std::uint16_t> instances);

  void require(std::string_view, std::span<const tq::com::Element>) const override {}
  tq::com::Find_token start_find_service(std::string_view service,
                                         std::optional<std::uint16_t> instance,
                                         tq::com::Find_handler handler) override;
  void stop_find_service(tq::com::Find_token token) override;
  std::vector<std::pair<std::string_view, std::uint64_t>> counters() const override { return {}; }
  mw::com::runtime::Peers peers() override { return {}; }

 protected:
  /// Nobody answers its calls.
  class Consumer : public tq::com::Consumer {
   public:
    void call(std::uint16_t method,
              tq::com::Payload arguments,
              tq::com::Response_handler handler) override;
    void call_no_return(std::uint16_t, tq::com::Payload) override {}
  };

 private:
  std::string service_;
  tq::com::Find_handler find_handler_;
};
