#include "tests/support/played_runtime.h"

#include <stdexcept>

namespace {
Played_runtime* the_runtime = nullptr;
}  // namespace

tq::com::Runtime& tq::com::Runtime::instance() {
  if (the_runtime == nullptr) throw std::logic_error{"there is no runtime"};
  return *the_runtime;
}

Played_runtime::Played_runtime() {
  the_runtime = this;
}
Played_runtime::~Played_runtime() {
  the_runtime = nullptr;
}

void Played_runtime::find(std::initializer_list<std::uint16_t> instances) {
  std::vector<tq::com::Found_instance> found;
  for (const auto instance : instances)
    found.push_back({.service = service_, .instance = instance, .where = nullptr});
  find_handler_(found);
}

tq::com::Find_token Played_runtime::start_find_service(std::string_view service,
                                                       std::optional<std::uint16_t>,
                                                       tq::com::Find_handler handler) {
  service_ = service;
  find_handler_ = std::move(handler);
  return tq::com::Find_token{1};
}
void Played_runtime::stop_find_service(tq::com::Find_token) {
  find_handler_ = nullptr;
}

void Played_runtime::Consumer::call(std::uint16_t,
                                    tq::com::Payload,
                                    tq::com::Response_handler handler) {
  handler(tq::com::Return_code::not_reachable, {});
}
