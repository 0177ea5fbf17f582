// A program that logs as it is told on standard input, for dlt_test.py. Every command is answered
// by one line on standard output, so the test knows that it is done.
#include <iostream>
#include <sstream>
#include <string>

#include "ara/core/initialization.h"
#include "ara/log/logger.h"

namespace {

using namespace ara::log;  // NOLINT(google-build-using-namespace)

struct Logs_in_its_destructor {
  ~Logs_in_its_destructor() { CreateLogger("LAST", "at exit").LogInfo() << "logged after main"; }
};

}  // namespace

int main() {
  ara::core::Initialize({.name = "pos"});
  static const Logs_in_its_destructor late;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string command;
    words >> command;
    if (command == "init") {
      unsigned mode = 0;
      words >> mode;
      InitLogging("POS", "POS application", LogLevel::kInfo, static_cast<LogMode>(mode), "");
    } else if (command == "log") {
      std::string context;
      unsigned level = 0;
      std::string text;
      words >> context >> level >> std::ws;
      std::getline(words, text);
      const Logger& logger =
          context == "-" ? DefaultLogger() : CreateLogger(context, context + " description");
      logger.Stream(static_cast<LogLevel>(level)) << text;
    } else if (command == "types") {
      CreateLogger("TYPE", "types").LogInfo()
          << "text" << true << 'c' << std::int8_t{-8} << std::int16_t{-16} << std::int32_t{-32}
          << std::int64_t{-64} << std::uint8_t{8} << std::uint16_t{16} << std::uint32_t{32}
          << std::uint64_t{18446744073709551615U} << 0.1F << 48.123456789 << HexFormat(0x83D101U);
    } else if (command == "long") {
      std::size_t size = 0;
      words >> size;
      std::string text;
      for (std::size_t i = 0; text.size() < size; ++i)
        text += std::to_string(i) + "\u00e4,";
      CreateLogger("LONG", "long").LogInfo() << "begin" << text << "end";
    } else if (command == "arguments") {
      int count = 0;
      words >> count;
      auto stream = CreateLogger("MANY", "many").LogInfo();
      for (int i = 0; i < count; ++i)
        stream << i;
    } else if (command == "lines") {
      int count = 0;
      words >> count;
      const Logger& logger = CreateLogger("LINE", "lines");
      for (int i = 0; i < count; ++i)
        logger.LogInfo() << "number" << i;
    } else if (command == "level") {
      std::string context;
      words >> context;
      std::cout << static_cast<int>(CreateLogger(context, "level").Level()) << ' ';
    } else if (command == "exit") {
      DefaultLogger().LogInfo() << "last line";
      return 0;
    }
    std::cout << "ok" << std::endl;  // NOLINT(performance-avoid-endl): the test waits for it
  }
  return 0;
}
