#include <gmock/gmock.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string>

#include "ara/log/logger.h"
#include "platform/linux/log/level_settings.h"
#include "platform/linux/log/text_sink.h"
#include "tests/support/capture.h"

namespace ara::log {
namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

/// Read when the first logger is made.
const int levels_are_set = ::setenv("POS_LOG_LEVEL", "error,NAMD=debug", 1);

TEST(Logging, the_environment_outranks_an_own_level_for_a_named_context_only) {
  ASSERT_EQ(levels_are_set, 0);
  EXPECT_EQ(CreateLogger("NAMD", "named and own", LogLevel::kWarn).Level(), LogLevel::kDebug);
  EXPECT_EQ(CreateLogger("OWNL", "own", LogLevel::kInfo).Level(), LogLevel::kInfo);
  EXPECT_EQ(CreateLogger("GENL", "neither").Level(), LogLevel::kError);
  InitLogging("LTST", "log test", LogLevel::kVerbose, LogMode{}, "");
  EXPECT_EQ(CreateLogger("OWNL", "own").Level(), LogLevel::kInfo);
  EXPECT_EQ(CreateLogger("GENL", "neither").Level(), LogLevel::kError);
}

TEST(Logging, each_stream_argument_is_an_argument_of_the_message) {
  const Logger& logger = CreateLogger("ARGS", "arguments", LogLevel::kInfo);
  const test::Capture capture;
  const char* nothing = nullptr;
  logger.LogInfo() << "label " << std::int8_t{-1} << std::numeric_limits<std::int64_t>::min() << 1.5
                   << HexFormat(std::int8_t{-1}) << "" << nothing;
  ASSERT_EQ(capture.records().size(), 1U);
  const auto record = capture.records().front();
  EXPECT_THAT(record.arguments,
              ElementsAre("label ", "-1", "-9223372036854775808", "1.5", "ff", "", "(null)"));
  EXPECT_EQ(record.text(), "label  -1 -9223372036854775808 1.5 ff  (null)");
}

TEST(Logging, a_context_has_four_letters_and_one_logger_whose_level_decides_what_is_written) {
  Logger& logger = CreateLogger("LVLS", "levels", LogLevel::kWarn);
  EXPECT_EQ(&CreateLogger("LVLS", "again", LogLevel::kDebug), &logger);
  for (const auto* bad : {"", "LONG1", "A B", "\x01"}) {
    EXPECT_THROW(CreateLogger(bad, "bad"), std::invalid_argument) << bad;
  }
  const test::Capture capture;
  logger.LogWarn() << "warn";
  logger.LogInfo() << "info";
  logger.Log(LogLevel::kOff, "off");
  logger.SetLevel(LogLevel::kOff);
  logger.LogFatal() << "fatal";
  logger.SetLevel(LogLevel::kVerbose);
  logger.LogVerbose() << "verbose";
  logger.Log(LogLevel::kDebug, "debug");
  EXPECT_THAT(capture.texts("LVLS"), ElementsAre("warn", "verbose", "debug"));
}

TEST(Logging, a_long_message_is_complete_and_a_boundless_one_is_cut_with_a_mark) {
  const Logger& logger = CreateLogger("LONG", "long messages", LogLevel::kInfo);
  const test::Capture capture;
  const std::string text(40'000, 'x');
  const std::string longest((64 << 10) - 7 - 7 - 11, 'x');  // two headers, the mark

  logger.LogInfo() << 1 << text << 2;
  logger.LogInfo() << text << text << text << 3;
  logger.LogInfo() << longest;

  const auto records = capture.records();
  ASSERT_EQ(records.size(), 3U);
  EXPECT_THAT(records[0].arguments, ElementsAre("1", text, "2"));
  ASSERT_EQ(records[1].arguments.size(), 3U);
  EXPECT_EQ(records[1].arguments[0], text);
  EXPECT_LT(records[1].arguments[1].size(), text.size());
  EXPECT_EQ(records[1].arguments[2], "[truncated]");
  EXPECT_THAT(records[2].arguments, ElementsAre(longest));
}

TEST(Level_settings, take_a_general_level_and_contexts_and_name_what_they_cannot_read) {
  const auto settings =
      Level_settings::parse("info,GNSS=warn,,TRCE=verbose,loud,=info,TOOLONG=info,A=,B=5");
  EXPECT_EQ(settings.general, LogLevel::kInfo);
  EXPECT_EQ(settings.contexts.size(), 2U);
  EXPECT_EQ(settings.contexts.at("GNSS"), LogLevel::kWarn);
  EXPECT_EQ(settings.contexts.at("TRCE"), LogLevel::kVerbose);
  EXPECT_EQ(settings.complaint, R"("loud", "=info", "TOOLONG=info", "A=", "B=5")");
}

TEST(Text_sink, a_line_cannot_be_forged_by_what_is_logged) {
  const auto line =
      format_line(LogLevel::kWarn, "POS", "GNSS", "a\n2026/11/24 fatal POS GNSS b\x1b[31m");
  EXPECT_THAT(
      line, MatchesRegex(
                "[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9:]{8}\\.[0-9]{6} warn POS GNSS a 2026/11/24 fatal "
                "POS GNSS b \\[31m\n"));
}

}  // namespace
}  // namespace ara::log
