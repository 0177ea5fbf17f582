/// The results of one search for the instances of a service, on their way to its handler.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "mw/com/strand.h"
#include "platform/linux/com/newest.h"
#include "platform/someip/base/deployment.h"
#include "platform/someip/base/workers.h"
#include "platform/someip/node/searches.h"
#include "tq/com/runtime.h"

namespace tq::com {

/// Calls the handler for one result at a time, the newest one.
class Search_results final : public someip::Search_sink,
                             public std::enable_shared_from_this<Search_results> {
 public:
  Search_results(const someip::Service_deployment& service,
                 Find_handler handler,
                 someip::Workers& workers);
  ~Search_results() override;
  Search_results(const Search_results&) = delete;
  Search_results& operator=(const Search_results&) = delete;

  void found(const std::vector<std::uint16_t>& instances) override;
  /// Returns once the handler does not run, except inside the handler.
  void close() { strand_.close(); }

 private:
  void deliver();

  const someip::Service_deployment& service_;
  const Find_handler handler_;
  someip::Workers& workers_;
  Newest<std::vector<std::uint16_t>> latest_;
  mw::com::Strand strand_;
};

}  // namespace tq::com
