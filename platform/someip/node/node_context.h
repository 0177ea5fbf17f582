/// References shared by the using and the providing side of a node.
#pragma once

#include <memory>
#include <utility>

#include "platform/someip/base/counters.h"
#include "platform/someip/base/deployment.h"
#include "platform/someip/base/log.h"
#include "platform/someip/base/workers.h"
#include "platform/someip/net/local_client.h"
#include "platform/someip/net/segment_shaper.h"
#include "platform/someip/net/udp_port.h"
#include "platform/someip/node/control.h"

namespace someip {

/// References to objects that outlive both sides. Any thread may read them. The header of each
/// class names the threads that may call it. `local` belongs to the control thread.
struct Node_context {
  /// `socket` is bound.
  [[nodiscard]] std::shared_ptr<Udp_port> udp_port(std::unique_ptr<Udp_socket> socket,
                                                   Message_receiver& receiver) const {
    return std::make_shared<Udp_port>(std::move(socket), receiver, workers, reassembler, shaper,
                                      counters, log);
  }

  const Deployment& deployment;
  const Node_deployment& node;
  const Address& own;
  Local_client* local;  ///< replaces the network as the path to servers; null: the network
  Workers& workers;
  Control& control;
  Log& log;
  Counters& counters;
  Shared_reassembler& reassembler;
  Segment_shaper& shaper;
};

}  // namespace someip
