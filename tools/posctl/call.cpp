#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "tools/command.h"
#include "tools/near_name.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/from_json.h"
#include "tools/posctl/services.h"

namespace posctl {
namespace {

using Instance = std::optional<std::uint16_t>;

struct Callable {
  std::string name;        ///< "Statistics.Counters"
  std::string_view input;  ///< what its argument is; empty: none
  std::function<Json(const Json& argument, Instance instance, Deadline deadline)> call;
};

/// Waits for the answer; null for a method without a result.
template <class Future>
Json answer(Future future, std::string_view name, Deadline deadline) {
  if constexpr (std::is_void_v<decltype(future.get())>) {
    result_of(std::move(future), name, deadline);
    return nullptr;
  } else {
    return to_json(result_of(std::move(future), name, deadline));
  }
}

/// One element of an interface, at its place.
template <class Service, std::size_t Place>
struct Element_of {
  using Description = std::tuple_element_t<Place, std::remove_const_t<decltype(Service::elements)>>;
  static constexpr std::string_view name = std::get<Place>(Service::elements).name;

  explicit Element_of(mw::com::cpp_binding::proxy::Proxy_core& core) : element{core, name} {}

  typename Description::template Class_of_side<mw::com::cpp_binding::proxy::Side> element;
};

/// A proxy with every element of an interface.
template <class Service, class Places>
class Proxy_of_places;
template <class Service, std::size_t... Places>
class Proxy_of_places<Service, std::index_sequence<Places...>>
    : public mw::com::cpp_binding::proxy::Proxy_impl<Service>,
      public Element_of<Service, Places>... {
  using Base = mw::com::cpp_binding::proxy::Proxy_impl<Service>;

 public:
  explicit Proxy_of_places(const typename Base::Handle_type& handle)
      : Base{handle}, Element_of<Service, Places>{this->core()}... {}
};
template <class Service>
using Places_of = std::make_index_sequence<std::tuple_size_v<decltype(Service::elements)>>;

/// Examples of arguments, for the list and for messages.
struct Example_argument {
  std::string_view method;
  std::string_view argument;
};
constexpr std::array example_arguments{
    Example_argument{"Statistics.SetLogLevel", R"({"context": "GNSS", "level": "debug"})"},
    Example_argument{"Statistics.LogLines", "0"},
    Example_argument{"FaultControl.Inject", R"({"fault": "jump=1000@5+10"})"},
    Example_argument{"FaultControl.Clear", R"({"fault": "jump"})"},
    Example_argument{"DiagnosticMonitor.InitMonitor",
                     R"("kClear", with --instance 0xD101 for POS_Input_GNSS)"},
};

template <class Input>
std::string_view example_of(std::string_view method) {
  if (std::is_same_v<Input, lumo::services::diag::Meta_info>)
    return "an object of texts; without one {}";
  const auto* const found = std::ranges::find(example_arguments, method, &Example_argument::method);
  return found == example_arguments.end() ? "JSON" : found->argument;
}

/// A data identifier goes by its number: "d_14a0.Read".
template <class Service>
std::string callable_name(std::string_view element) {
  const std::string_view full = Service::name;
  const bool is_identifier = full.find("::diag::d_") != std::string_view::npos;
  const auto service = is_identifier ? lumo::services::diag::identifier_of(full)
                                     : mw::com::cpp_binding::short_name(full);
  return std::string(service) + "." + std::string(element);
}

/// Every method, and the present value of every field.
class Callables {
 public:
  template <class Service>
  void add_service() {
    [this]<std::size_t... Places>(std::index_sequence<Places...>) {
      (this->template add<Element_of<Service, Places>, Service>(
           std::get<Places>(Service::elements)),
       ...);
    }
    (Places_of<Service>());
  }
  std::vector<Callable> take() { return std::move(all_); }

 private:
  template <class Element_of, class Service, class Output>
  void add(const mw::com::cpp_binding::Method<Output()>&) {
    add_call<Element_of, Service>(
        "", [](const Json&) { return [](auto& method) { return method(); }; });
  }
  template <class Element_of, class Service, class Output, class Input>
  void add(const mw::com::cpp_binding::Method<Output(Input)>&) {
    add_call<Element_of, Service>(
        example_of<Input>(callable_name<Service>(Element_of::name)), [](const Json& argument) {
          return [value = from_json<Input>(argument)](auto& method) { return method(value); };
        });
  }
  template <class Element_of, class Service, class Value>
  void add(const mw::com::cpp_binding::Field<Value>&) {
    add_call<Element_of, Service>(
        "", [](const Json&) { return [](auto& field) { return field.Get(); }; });
  }
  template <class Element_of, class Service, class Value>
  void add(const mw::com::cpp_binding::Event<Value>&) {}

  /// `prepare` reads the argument before the search for the service, and returns the call.
  template <class Element_of, class Service, class Prepare>
  void add_call(std::string_view input, Prepare prepare) {
    const std::string name = callable_name<Service>(Element_of::name);
    all_.push_back({name, input, [=](const Json& argument, Instance instance, Deadline deadline) {
                      using Proxy = Proxy_of_places<Service, Places_of<Service>>;
                      const auto start = prepare(argument);
                      const auto proxy = connect<Proxy>(Service::name, deadline, instance);
                      return answer(start(static_cast<Element_of&>(*proxy).element), name,
                                    deadline);
                    }});
  }

  std::vector<Callable> all_;
};

std::vector<Callable> callables() {
  Callables all;
  for_each_service([&]<class Service>() { all.add_service<Service>(); });
  return all.take();
}

const Callable& callable_named(const std::vector<Callable>& all, const std::string& name) {
  const auto found = std::ranges::find(all, name, &Callable::name);
  if (found != all.end()) return *found;
  std::vector<std::string> names;
  names.reserve(all.size());
  for (const auto& one : all)
    names.push_back(one.name);
  throw tools::Usage_error("there is no method \"" + name + "\"" +
                           tools::did_you_mean(name, names) +
                           "\nposctl call without a name lists all.");
}

Json argument_of(const Callable& method, const std::string& text) {
  if (method.input.empty()) {
    if (text.empty()) return nullptr;
    throw tools::Usage_error(method.name + " takes no argument");
  }
  if (text.empty()) return Json::object();
  Json json = Json::parse(text, nullptr, false);
  if (json.is_discarded()) {
    throw tools::Usage_error("the argument is no JSON: \"" + text.substr(0, 80) +
                             "\"; expected such as " + std::string(method.input));
  }
  return json;
}

}  // namespace

int call(const Call_options& options) {
  const auto all = callables();
  if (options.method.empty()) {
    std::string text;
    for (const auto& one : all)
      text += one.name + (one.input.empty() ? "" : "  argument: " + std::string(one.input)) + "\n";
    tools::write_output(text);
    return 0;
  }
  const auto& method = callable_named(all, options.method);
  const Json argument = argument_of(method, options.argument);
  const Instance instance = options.instance == 0 ? std::nullopt : Instance(options.instance);
  const Json result = on_the_way(
      options.way, [&] { return method.call(argument, instance, deadline_in(options.timeout)); });
  const Json json{{"schema", 1}, {"method", method.name}, {"result", result}};
  tools::write_output(json.dump(2) + "\n");
  return 0;
}

}  // namespace posctl
