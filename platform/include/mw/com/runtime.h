/// Life of the communication middleware: one Component_singleton per process. It is created before
/// and destroyed after every other object of the middleware.
#pragma once

#include <memory>
#include <string>

namespace tq::com {
class Runtime;
}

namespace mw::com::runtime {

/// Owns the process's runtime: its constructor starts the communication, its destructor ends it.
class Component_singleton {
 public:
  /// Reads the deployment manifest, takes the node's address and starts the workers.
  ///
  /// `name` is the node's key in the manifest ("nodes"); an empty name means the application's
  /// node, see ara::core::Application. With `passive` no worker is started and nothing is sent: for
  /// tools that only read the manifest.
  ///
  /// The manifest is the first of these, where <name> is Application::name:
  ///   the file that the environment variable <NAME>_MANIFEST names, if the variable is set
  ///   /etc/<name>/manifest.json
  ///   share/<name>/manifest.json beside the folder of the executable
  ///   Application::manifest
  ///
  /// Throws std::runtime_error with file, key and expectation for a bad manifest, and with the key
  /// and the address if the address is taken or unusable. Throws std::logic_error if a
  /// Component_singleton already exists.
  Component_singleton(const std::string& name, bool passive);
  /// With a runtime that the platform has made otherwise.
  explicit Component_singleton(std::unique_ptr<tq::com::Runtime> runtime);
  ~Component_singleton();
  Component_singleton(const Component_singleton&) = delete;
  Component_singleton& operator=(const Component_singleton&) = delete;

 private:
  std::unique_ptr<tq::com::Runtime> runtime_;
};

}  // namespace mw::com::runtime
