#include "tools/posctl/serve/page_server.h"

#include <gmock/gmock.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <future>
#include <string>
#include <vector>

#include "platform/someip/discovery/discovery_message.h"
#include "tests/support/error_of.h"
#include "tools/posctl/offer_table.h"
#include "tools/posctl/serve/action.h"
#include "tools/posctl/serve/guard.h"
#include "tools/posctl/serve/marks.h"
#include "tools/posctl/serve/page_feed.h"

namespace {

using namespace posctl::serve;
using boost::beast::http::field;
using boost::beast::http::status;
using posctl::Json;
using testing::AllOf;
using testing::HasSubstr;

TEST(Guard, answers_this_page_with_its_token_and_refuses_all_others) {
  struct Case {
    const char *local, *host, *origin, *target, *authorization;
    unsigned refusal;  ///< 0: answered
  };
  constexpr const char* good = "/?a=b&token=secret-1";
  for (const Case& one : std::vector<Case>{
           {"127.0.0.1", "127.0.0.1:8030", "", good, "", 0},
           {"127.0.0.1", "LocalHost:9", "http://localhost:9", good, "", 0},
           {"127.0.0.1", "127.0.0.1", "", "/feed", "Bearer secret-1", 0},
           {"::1", "[::1]:8030", "http://[::1]:8030", good, "", 0},
           {"::ffff:10.1.2.3", "10.1.2.3:8030", "", good, "", 0},
           {"10.1.2.3", "localhost:8030", "", good, "", 421},
           {"127.0.0.1", "elsewhere.example:8030", "", good, "", 421},
           {"127.0.0.1", "127.0.0.1.elsewhere.example", "", good, "", 421},
           {"127.0.0.1", "127.0.0.1:65536", "", good, "", 421},
           {"127.0.0.1", "[::1", "", good, "", 421},
           {"127.0.0.1", "", "", good, "", 421},
           {"127.0.0.1", nullptr, "", good, "", 400},
           {"127.0.0.1", "localhost:9", "http://localhost:8", good, "", 403},
           {"127.0.0.1", "localhost:9", "https://localhost:9", good, "", 403},
           {"127.0.0.1", "localhost:9", "null", good, "", 403},
           {"127.0.0.1", "127.0.0.1:8030", "", "/", "", 401},
           {"127.0.0.1", "127.0.0.1:8030", "", "/?token=secret-", "", 401},
           {"127.0.0.1", "127.0.0.1:8030", "", "/?token=secret-1x", "", 401},
           {"127.0.0.1", "127.0.0.1:8030", "", "/?xtoken=secret-1", "Basic secret-1", 401}}) {
    posctl::Http_message message;
    message.target(one.target);
    if (one.host != nullptr) message.set(field::host, one.host);
    if (*one.origin != '\0') message.set(field::origin, one.origin);
    if (*one.authorization != '\0') message.set(field::authorization, one.authorization);
    const posctl::Http_request request{message, boost::asio::ip::make_address(one.local), {}};
    EXPECT_EQ(static_cast<unsigned>(refusal_of(request, "secret-1").value_or(status::unknown)),
              one.refusal)
        << (one.host == nullptr ? "no host" : one.host) << ' ' << one.origin << ' ' << one.target;
  }
  EXPECT_TRUE(is_token("aB3-._~x"));
  for (const char* text : {"", "short12", "with space", "a&b=cdefg", "ümlaut-8"})
    EXPECT_FALSE(is_token(text)) << text;
}

TEST(Action, is_an_object_with_an_id_and_known_members) {
  const auto action =
      action_of(R"({"action":"initMonitor","id":7,"monitor":"POS_Input_GNSS","reason":"kClear"})");
  EXPECT_EQ(action.id, 7);
  EXPECT_EQ(action.name + action.reason, "POS_Input_GNSSkClear");
  for (const auto& [text, error] : std::vector<std::pair<std::string, std::string>>{
           {"", "is a JSON object"},
           {std::string(4000, '['), "is a JSON object"},
           {R"({"id":1.5,"action":"componentState","state":"kOn"})", "\"id\""},
           {R"({"id":1,"action":["componentState"]})", "\"action\""},
           {R"({"id":1,"action":"componentState"})", "\"state\""},
           {R"({"id":1,"action":"makeFault","fault":1})", "\"fault\""},
           {R"({"id":1,"action":"format"})", "no such action"}})
    EXPECT_THAT(test::error_of([&text = text] { (void)action_of(text); }), HasSubstr(error))
        << text;
}

TEST(Page_server, keeps_a_client_whose_action_takes_long_and_bounds_its_actions) {
  namespace asio = boost::asio;
  namespace beast = boost::beast;
  struct Slow : Actor {
    std::promise<void> end;
    std::shared_future<void> ended = end.get_future().share();
    std::string act(const Action& action) override {
      ended.wait();
      return action.name;
    }
  } actor;
  Page_feed feed(Json{{"version", "1"}});
  const Page_server server({asio::ip::address_v4::loopback(), 0}, feed,
                           {.token = "", .marks = nullptr, .actor = &actor},
                           {.idle = std::chrono::seconds(1), .client_actions = 2});
  asio::io_context context;
  beast::websocket::stream<beast::tcp_stream> client(context);
  beast::get_lowest_layer(client).connect(server.endpoint());
  int pings = 0;
  client.control_callback([&](beast::websocket::frame_type kind, beast::string_view) {
    // The server sends one each half of the idle time.
    if (kind == beast::websocket::frame_type::ping && ++pings == 4) actor.end.set_value();
  });
  client.handshake("127.0.0.1:" + std::to_string(server.endpoint().port()), "/feed");
  for (const char* action : {R"({"action":"makeFault","id":1,"fault":"off"})",
                             R"({"action":"endFaults","id":2,"fault":""})",
                             R"({"action":"makeFault","id":3,"fault":"off"})"})
    client.write(asio::buffer(std::string_view(action)));
  Json answers = Json::array();
  while (answers.size() < 3) {
    beast::flat_buffer buffer;
    boost::system::error_code error;
    client.read(buffer, error);
    ASSERT_FALSE(error) << error.message() << " after " << pings << " pings";
    const Json frame = Json::parse(beast::buffers_to_string(buffer.data()));
    if (frame["topic"] == "answer") answers.push_back(frame["data"]);
  }
  EXPECT_EQ(answers[0]["id"], 3);
  EXPECT_THAT(answers[0]["text"].get<std::string>(), HasSubstr("try again"));
  EXPECT_EQ(answers[1], (Json{{"id", 1}, {"ok", true}, {"text", "off"}}));
  EXPECT_EQ(answers[2], (Json{{"id", 2}, {"ok", true}, {"text", ""}}));
}

TEST(Offers, of_a_flood_come_in_several_passes) {
  const someip::Address here = boost::asio::ip::address_v4::loopback();
  someip::Udp_socket listener(here), sender(here);
  ASSERT_FALSE(listener.bind({here, 0}));
  someip::Entry entry;
  entry.type = someip::Entry_type::offer_service;
  entry.ttl = 3;
  someip::Discovery_writer writer;
  while (entry.instance < 10 && writer.add(entry, {}))
    ++entry.instance;
  const int datagrams = 50;
  for (int i = 0; i < datagrams; ++i)
    ASSERT_FALSE(sender.send(writer.message(1, true), someip::Socket_address(listener.local())));
  const auto pass = [&] {
    int offers = 0;
    posctl::read_offers(listener, 256, true, [&](const auto&, const auto&) { ++offers; });
    return offers;
  };
  EXPECT_EQ(pass(), 260);
  EXPECT_EQ(pass(), 240);
  EXPECT_EQ(pass(), 0);
}

TEST(Marks, come_from_gpx_and_geojson) {
  for (
      const char* text :
      {R"(<?xml version="1.0"?><!-- <wpt> --><gpx><wpt lat="46.5" lon='7.25'><name>A &amp; <![CDATA[<b>]]></name></wpt>
           <trk><name>way</name><trkseg><trkpt lon="1" lat="+2"/><trkpt lat="3" lon="4"><ele>5</ele></trkpt></trkseg>
           <trkseg><trkpt lat="6" lon="5"/></trkseg></trk></gpx>)",
       R"({"type":"FeatureCollection","features":[
           {"type":"Feature","properties":{"name":"A & <b>"},"geometry":{"type":"Point","coordinates":[7.25,46.5,9]}},
           {"type":"Feature","properties":null,"geometry":null},
           {"type":"Feature","properties":{"name":"way"},"geometry":{"type":"MultiLineString","coordinates":[[[1,2],[4,3]],[[5,6]]]}}]})"}) {
    EXPECT_EQ(marks_json(marks_of(text)),
              Json::parse(R"({"schema":1,"marks":[{"name":"A & <b>","points":[[7.25,46.5]]},
                              {"name":"way","points":[[1.0,2.0],[4.0,3.0]]},
                              {"name":"way","points":[[5.0,6.0]]}]})"));
  }
  for (const auto& [text, error] : std::vector<std::pair<std::string, std::string>>{
           {"", "neither GPX nor GeoJSON"},
           {"<gpx><wpt lat='1' lon='181'/></gpx>", "outside"},
           {"<gpx><wpt lat='1' xlon='1'/></gpx>", "has no lon"},
           {"<gpx><trkpt lat='1' lon='1'/></gpx>", "outside a track"},
           {R"({"type":"Point","coordinates":["7",8]})", "[longitude, latitude]"},
           {R"({"type":7})", "another type"},
           {R"({"type":"Circle"})", "no geometry \"Circle\""}})
    EXPECT_THAT(test::error_of([&text = text] { (void)marks_of(text); }), HasSubstr(error)) << text;
}

TEST(Page_feed, keeps_least_and_greatest_of_what_it_joins_and_of_the_past) {
  using Record = lumo::services::positioning::datatypes::DT_positions_struct;
  Page_feed feed(Json{{"version", "1"}});
  std::vector<Json> frames;
  feed.set_clients(1);
  feed.listen([&](auto, const auto& text) { frames.push_back(Json::parse(*text)); });
  constexpr int count = 200;  // within one interval
  for (int i = 0; i < count; ++i) {
    Record record;
    record.speed2D = i == 77 ? 99.0F : i == 78 ? -99.0F : 1.0F;
    feed.notify(std::vector{record}, 1000 + i / 1000.0);
  }
  while (frames.size() < 2 || frames.back()["data"].value("received", 0.0) < 1000.199)
    feed.flush();
  double total = 0;
  Json least = 1, greatest = 1;
  for (const auto& frame : frames) {
    const Json& data = frame["data"];
    EXPECT_EQ(frame["topic"], "output");
    total += data.contains("merged") ? data["merged"][0]["count"].get<double>() : 1;
    if (!data.contains("merged")) continue;
    least = std::min(least, data["merged"][0]["min"]["speed2D"]);
    greatest = std::max(greatest, data["merged"][0]["max"]["speed2D"]);
  }
  EXPECT_EQ(total, count);
  EXPECT_LT(frames.size(), 20U);
  EXPECT_EQ(Json::array({least, greatest}), Json::array({-99.0, 99.0}));
  const std::vector figures(statistics_curves.size(), 1.0);
  for (int second = 0; second < 2000; ++second)
    feed.curve(second * 1000, figures);
  feed.curve(0, figures);  // the clock was set back
  const auto history = Json::parse(*feed.all().frames.at(1));
  const Json& series = history["data"]["series"][0];
  EXPECT_EQ(series["topic"], "output");
  const Json& fine = series["tiers"][2];
  EXPECT_EQ(fine["t"].size(), 4U) << "rows of 50 ms";
  const Json& counts = history["data"]["series"].back()["tiers"][2]["n"];
  EXPECT_EQ(counts.size(), 1200U) << "in bounded memory";
  EXPECT_EQ(counts.back(), 1);
  EXPECT_EQ(fine["max"]["speed2D"][1], 99.0);
  EXPECT_EQ(fine["min"]["speed2D"][1], -99.0);
  EXPECT_EQ(fine["last"]["LAT"][0], nullptr);
}

TEST(Page_feed, remembers_events_and_states_within_a_bound_and_text_stays_text) {
  Page_feed feed(Json{{"version", "1"}});
  const std::string hostile = "</script><img src=x onerror=alert(1)> \"}\xff\n";
  for (int i = 0; i < 5000; ++i)
    feed.event(Topic::offer, {{"number", i}, {"service", hostile}});
  feed.state(Topic::status, {{"verdict", "old"}});
  feed.state(Topic::status, {{"verdict", "new"}});
  const auto all = feed.all();
  std::size_t bytes = 0;
  for (const auto& text : all.frames)
    bytes += text->size();
  EXPECT_LT(bytes, 80'000U);
  const Json history = Json::parse(*all.frames.at(1))["data"]["frames"];
  EXPECT_EQ(history.back()["data"]["number"], 4999);
  EXPECT_THAT(history.back()["data"]["service"].get<std::string>(),
              AllOf(HasSubstr("<img src=x onerror=alert(1)> \"}"), HasSubstr("\uFFFD\n")));
  EXPECT_EQ(Json::parse(*all.frames.back())["data"]["verdict"], "new");
}

}  // namespace
