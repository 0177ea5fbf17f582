/// The process's node on the network: its address, its service discovery, and the two sides that
/// work with it.
#pragma once

#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include "platform/someip/discovery/discovery.h"
#include "platform/someip/net/discovery_channel.h"
#include "platform/someip/net/link_watch.h"
#include "platform/someip/node/node_client.h"
#include "platform/someip/node/node_context.h"
#include "platform/someip/node/node_server.h"

namespace someip {

/// All public members may be called from any thread.
class Node final {
 public:
  /// Takes one of the node's addresses and begins to listen. The references outlive the node, the
  /// workers run. Throws std::runtime_error naming the manifest, the key and the address when all
  /// addresses of the node are taken.
  Node(const Deployment& deployment, const Node_deployment& node, Workers& workers, Log_sink log);
  /// Same as stop(). The workers must have been joined between the two.
  ~Node();
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  /// Says good-bye on the network (stop offers, stop subscriptions), closes everything and ends the
  /// calls that wait with Return_code::not_reachable. Not from the control thread.
  void stop();

  [[nodiscard]] const Address& address() const { return context_.own; }
  [[nodiscard]] const Counters& counters() const { return context_.counters; }
  [[nodiscard]] Counters& counters() { return context_.counters; }

  void start_search(const Service_deployment& service,
                    std::uint16_t instance,
                    std::shared_ptr<Search> search) {
    client_.start_search(service, instance, std::move(search));
  }
  void stop_search(std::shared_ptr<Search> search) { client_.stop_search(std::move(search)); }

  void subscribe(const Event_selection& selection, std::shared_ptr<Event_sink> sink) {
    client_.subscribe(selection, std::move(sink));
  }
  void unsubscribe(std::shared_ptr<Event_sink> sink) { client_.unsubscribe(std::move(sink)); }

  /// The handler is called once: on a thread of the node, or on the calling one when the request
  /// cannot be sent.
  void call(const Instance_key& instance,
            std::uint16_t method,
            Transport transport,
            Bytes arguments,
            const void* owner,
            Response_handler handler) {
    client_.call(instance, method, transport, arguments, owner, std::move(handler));
  }
  void call_no_return(const Instance_key& instance,
                      std::uint16_t method,
                      Transport transport,
                      Bytes arguments,
                      const void* owner) {
    client_.call_no_return(instance, method, transport, arguments, owner);
  }
  /// Ends the waiting calls of `owner` with Return_code::not_reachable, on the calling thread. What
  /// it has sent still leaves; connections that nobody else uses are closed then.
  void cancel_calls(const void* owner) { client_.cancel_calls(owner); }

  /// Opens the ports of an instance. Throws std::runtime_error naming the key when one is taken.
  [[nodiscard]] std::shared_ptr<Provided_instance> provide(const Service_deployment& service,
                                                           const Instance_deployment& instance) {
    return server_.provide(service, instance);
  }
  void offer(std::shared_ptr<Provided_instance> instance) { server_.offer(std::move(instance)); }
  void stop_offer(std::shared_ptr<Provided_instance> instance) {
    server_.stop_offer(std::move(instance));
  }

 private:
  /// The channel of the first address that is free, which becomes the node's own.
  [[nodiscard]] std::unique_ptr<Discovery_channel> take_address();
  void start();
  /// A node that provides services says it when no list restricts any of them.
  void warn_of_open_services();
  void schedule();
  void link_changed(bool up);

  Node_context context_;
  const std::unique_ptr<Discovery_channel> channel_;
  Node_client client_;
  Node_server server_;
  std::once_flag stopped_once_;

  // The control thread's own, after construction.
  Discovery discovery_;
  const std::unique_ptr<Link_watch> link_;
  boost::asio::steady_timer timer_;
};

}  // namespace someip
