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

}  // namespace tq::com
