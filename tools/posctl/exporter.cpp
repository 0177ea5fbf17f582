#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "binding/statistics.h"
#include "posService/Positioning.h"
#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/http_server.h"
#include "tools/posctl/lasting_way.h"
#include "tools/posctl/metrics.h"
#include "tools/posctl/present.h"
#include "tools/stop_signal.h"

namespace posctl {
namespace {

using lumo::services::positioning::proxy::PositioningProxy;

/// In seconds, for all answers of the application to one scrape.
constexpr double answer_time = 2;

/// Nothing if the service is not offered.
template <class Proxy, class Call>
auto ask(Present<Proxy>& service, Call call) -> std::optional<decltype(call(*service.proxy()))> {
  service.update();
  Proxy* const proxy = service.proxy();
  if (proxy == nullptr) return std::nullopt;
  return call(*proxy);
}

/// Nothing if no answer, or an error, has come in time.
template <class Future>
auto answer(std::optional<Future> future, Deadline deadline)
    -> std::optional<decltype(future->get())> {
  try {
    if (future) return result_of(std::move(*future), "", deadline);
  } catch (const std::exception&) {
    // The metrics of this part are missing in this scrape.
  }
  return std::nullopt;
}

/// The services of the application. The search for them goes on until they are there.
class Services {
 public:
  [[nodiscard]] bool is_there() { return statistics_.proxy() != nullptr; }

  [[nodiscard]] Look look() {
    const auto start = std::chrono::steady_clock::now();
    const auto deadline = deadline_in(answer_time);
    // All calls begin before the first wait.
    auto process = ask(statistics_, [](auto& proxy) { return proxy.Process(); });
    auto clock = ask(statistics_, [](auto& proxy) { return proxy.Clock(); });
    auto stamps = ask(statistics_, [](auto& proxy) { return proxy.Stamps(); });
    auto ages = ask(statistics_, [](auto& proxy) { return proxy.Ages(); });
    auto counters = ask(statistics_, [](auto& proxy) { return proxy.Counters(); });
    auto peers = ask(statistics_, [](auto& proxy) { return proxy.Peers(); });
    auto positions = ask(positioning_, [](auto& proxy) { return proxy.positions.Get(); });
    auto diagnosis = ask(statistics_, [](auto& proxy) { return proxy.Diagnosis(); });

    Look look;
    look.process = answer(std::move(process), deadline);
    look.clock = answer(std::move(clock), deadline);
    look.stamps = answer(std::move(stamps), deadline);
    look.ages = answer(std::move(ages), deadline);
    look.counters = answer(std::move(counters), deadline);
    look.peers = answer(std::move(peers), deadline);
    look.positions = answer(std::move(positions), deadline);
    look.diagnosis = answer(std::move(diagnosis), deadline);
    look.duration = std::chrono::steady_clock::now() - start;
    return look;
  }

 private:
  Present<binding::Statistics_proxy> statistics_;
  Present<PositioningProxy> positioning_;
};

/// The text that answers Prometheus. One thread makes it; requests that come meanwhile, or soon
/// after, get the same text.
class Metrics_page {
 public:
  /// Throws tools::Usage_error.
  explicit Metrics_page(const Way_options& way)
      : way_{{[way] { return choose_way(way); }},
             [](const Possible_way&) { return std::make_unique<Services>(); }} {
    way_.renew();
  }
  ~Metrics_page() { maker_.join(); }

  /// Answers now or when the text has been made. The thread of the server calls.
  void answer(const Http_counts& counts, Http_server::Later later) {
    std::unique_lock lock(mutex_);
    waiting_.push_back(std::move(later));
    if (made_ && std::chrono::steady_clock::now() - *made_ < life) {
      answer_waiting();
    } else if (waiting_.size() == 1) {
      lock.unlock();
      boost::asio::post(maker_, [this, counts] { make(counts); });
    }
  }

 private:
  static constexpr std::chrono::milliseconds life{250};

  [[nodiscard]] Look look_at_application() {
    if (way_.look() == nullptr || !way_.look()->is_there()) way_.renew();
    return way_.look() == nullptr ? Look{} : way_.look()->look();
  }
  void make(Http_counts counts) {
    auto status = boost::beast::http::status::ok;
    std::string text;
    try {
      Look look = look_at_application();
      ++counts.requests;  // the one that this text answers
      look.http = counts;
      text = exposition(look);
    } catch (const std::exception& error) {
      status = boost::beast::http::status::internal_server_error;
      text = error.what() + std::string("\n");
    }
    const std::lock_guard lock(mutex_);
    text_ = std::make_shared<const std::string>(std::move(text));
    made_.reset();
    if (status == boost::beast::http::status::ok) made_ = std::chrono::steady_clock::now();
    answer_waiting(status);
  }
  void answer_waiting(boost::beast::http::status status = boost::beast::http::status::ok) {
    for (const auto& later : std::exchange(waiting_, {})) {
      Http_answer answer;
      answer.status = status;
      answer.type = "text/plain; version=0.0.4; charset=utf-8";
      answer.text = text_;
      later(std::move(answer));
    }
  }

  Lasting_way<Services> way_;  ///< of the constructor, then of the thread below
  std::mutex mutex_;           ///< guards the members below
  std::shared_ptr<const std::string> text_;
  std::optional<std::chrono::steady_clock::time_point> made_;
  std::vector<Http_server::Later> waiting_;
  boost::asio::thread_pool maker_{1};
};

}  // namespace

int exporter(const Exporter_options& options) {
  if (options.list) {
    tools::write_output(metric_table());
    return 0;
  }
  const auto endpoint = listen_endpoint(options.listen);
  tools::Stop_signal stop_signal;
  Metrics_page page(options.way);
  const auto handle = [&](const Http_request& request,
                          Http_server::Later later) -> std::optional<Http_answer> {
    if (request.path() != "/metrics") return refusal(boost::beast::http::status::not_found);
    page.answer(request.counts, std::move(later));
    return std::nullopt;
  };
  std::optional<Http_server> server;
  try {
    server.emplace(endpoint, handle);
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error("cannot listen at " + options.listen + ": " + error.code().message());
  }
  tools::write_output("http://" + text_of(server->endpoint()) + "/metrics\n",
                      stop_signal.descriptor());
  while (stop_signal.wait_until(Deadline::max()) != tools::Stop_signal::Wake::stopped)
    continue;
  return 0;
}

}  // namespace posctl
