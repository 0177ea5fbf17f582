/// Runtimes below mw::com::runtime::Component_singleton: any number of them may live in one
/// process, each on a node address of its own. For tests and benchmarks that play several
/// processes.
#pragma once

#include <memory>
#include <string>

#include "platform/someip/base/deployment.h"
#include "tq/com/runtime.h"

namespace tq::com {

/// `node` is a key of the deployment's nodes. Throws as Component_singleton does.
[[nodiscard]] std::unique_ptr<Runtime> make_runtime(someip::Deployment deployment,
                                                    const std::string& node);

/// The same without an address: the node reaches the services of the process that listens at the
/// Unix socket `path`, and no others. It provides none. It waits for the socket and connects again
/// after a loss.
[[nodiscard]] std::unique_ptr<Runtime> make_local_runtime(someip::Deployment deployment,
                                                          const std::string& node,
                                                          const std::string& path);

}  // namespace tq::com
