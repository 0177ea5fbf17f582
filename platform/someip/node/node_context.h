/// What the two sides of a node, the using and the providing one, share.
#pragma once

#include <boost/asio/post.hpp>
#include <functional>
#include <memory>
#include <utility>

#include "platform/someip/base/counters.h"
#include "platform/someip/base/deployment.h"
#include "platform/someip/base/log.h"
#include "platform/someip/base/workers.h"
#include "platform/someip/discovery/discovery_client.h"
#include "platform/someip/discovery/discovery_server.h"
#include "platform/someip/net/segment_shaper.h"
#include "platform/someip/net/udp_port.h"

namespace someip {

/// Owned by the node, which outlives both sides. The members are thread-safe or do not change.
struct Node_context {
  using Discovery_change = std::function<void(Discovery_server&, Discovery_client&)>;

  Node_context(const Deployment& all, const Node_deployment& one, Workers& threads, Log_sink sink)
      : deployment(all),
        node(one),
        workers(threads),
        log(std::move(sink)),
        reassembler(all.limits),
        shaper(all, threads.control(), counters) {}

  /// Not after the node has stopped.
  void on_control(std::function<void()> work) {
    boost::asio::post(workers.control(), [this, work = std::move(work)] {
      if (!stopped) work();
    });
  }
  /// `socket` is bound.
  [[nodiscard]] std::shared_ptr<Udp_port> udp_port(std::unique_ptr<Udp_socket> socket,
                                                   Message_receiver& receiver) {
    return std::make_shared<Udp_port>(std::move(socket), receiver, workers, reassembler, shaper,
                                      counters, log);
  }

  const Deployment& deployment;
  const Node_deployment& node;
  Workers& workers;
  Log log;
  Counters counters;
  Shared_reassembler reassembler;
  Segment_shaper shaper;
  Address own;           ///< set before there are sides
  bool stopped = false;  ///< the control thread's own
  /// Changes what discovery offers, searches or subscribes to, and sends what follows from it. On
  /// the control thread.
  std::function<void(const Discovery_change&)> change;
};

}  // namespace someip
