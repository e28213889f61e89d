#include "Folder.h"
#include "PrintableText.h"
#include "UnprintableCharacters.h"

#include <glib.h>
#include <gmock/gmock.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <utility>

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

namespace {

class Log : public testing::Test {
protected:
    std::string fileWith(const std::string& name, const std::string& content) const {
        std::ofstream(folder / name) << content;
        return folder / name;
    }

    const corvane::test::Folder folder;
};

std::string outputOfLateLogger(const std::string& configuration) {
    const std::string command =
        "CORVANE_LOG_CONFIG='" + configuration + "' '" CORVANE_LATE_LOGGER "' 2>&1";
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    std::string output;
    for (int c = 0; (c = std::fgetc(pipe.get())) != EOF;) output += static_cast<char>(c);
    return output;
}

}  // namespace

TEST_F(Log, ShowsEachPartOfARecordOnTheConsoleBeforeAndAfterMain) {
    const std::string output = outputOfLateLogger("");
    EXPECT_THAT(output, ContainsRegex("^20[0-9-]+ [0-9:.]+ INFO +LateLogger.cpp:8 "
                                      ".*LateLogger::LateLogger\\(\\): before main\n"));
    EXPECT_THAT(output, HasSubstr("LateLogger::~LateLogger(): after \\x1B[31m main\n"));
    EXPECT_THAT(output, Not(HasSubstr("too low")));
}

TEST_F(Log, UsesTheConfigurationNamedInTheEnvironment) {
    const std::string file = fileWith("late.properties",
                                      "log4cplus.rootLogger=DEBUG, A\n"
                                      "log4cplus.appender.A=log4cplus::ConsoleAppender\n"
                                      "log4cplus.appender.A.layout=corvane::PrintableLayout\n"
                                      "log4cplus.appender.A.layout.ConversionPattern=%m%n\n");
    EXPECT_EQ(outputOfLateLogger(file), "before main\ntoo low\nafter \\x1B[31m main\n");
}

TEST_F(Log, StaysOnTheConsoleWhenTheConfigurationIsMissingOrBroken) {
    for (const std::string& file :
         {std::string("/nowhere/log.properties"), folder.path().string(),
          fileWith("empty.properties", ""),
          fileWith("level.properties", "log4cplus.rootLogger=DEBUG\n"),
          fileWith("class.properties",
                   "log4cplus.rootLogger=DEBUG, A\nlog4cplus.appender.A=NoSuchClass\n")}) {
        EXPECT_THAT(outputOfLateLogger(file), AllOf(HasSubstr("log configuration " + file),
                                                    HasSubstr("after \\x1B[31m main\n")));
    }
}

TEST(PrintableText, EscapesWhatBreaksALineOrSteersATerminal) {
    const std::pair<std::string, std::string> rows[]{
        {"", ""},
        {"Zoë's \"Phone\" \\ 日本 \U0001F4F1", "Zoë's \"Phone\" \\ 日本 \U0001F4F1"},
        {"a\nERROR forged\r\t\x7F", "a\\x0AERROR forged\\x0D\\x09\\x7F"},
        {"\x1B[2J\xC2\x9B\xC2\xA0", "\\x1B[2J\\xC2\\x9B\xC2\xA0"},
        {"\xE2\x80\xA8\xE2\x80\xAE\xE2\x80\x93", "\\xE2\\x80\\xA8\\xE2\\x80\\xAE\xE2\x80\x93"},
        {"cut \xE2\x82", "cut \\xE2\\x82"},
        {"\xC1\x81 \xE0\x81\x81 \xED\xA0\x80 \xF4\x90\x80\x80 \xFF \xBF",
         "\\xC1\\x81 \\xE0\\x81\\x81 \\xED\\xA0\\x80 \\xF4\\x90\\x80\\x80 \\xFF \\xBF"},
        {std::string("a\0b", 3), "a\\x00b"}};
    for (const auto& [name, printable] : rows) EXPECT_EQ(corvane::printableText(name), printable);
}

/// The table of characters to escape, against the properties that PCRE2 knows.
TEST(UnprintableCharacters, HaveTheUnicodePropertiesOfTheirComment) {
    GRegex* const regex =
        g_regex_new("^[\\p{Cc}\\p{Zl}\\p{Zp}\\p{Bidi_Control}\\p{Default_Ignorable_Code_Point}]",
                    static_cast<GRegexCompileFlags>(0), static_cast<GRegexMatchFlags>(0), nullptr);
    if (regex == nullptr) GTEST_SKIP() << "GLib's regular expressions lack these properties";
    for (gunichar c = 1; c <= 0x10FFFF; ++c) {
        char text[7] = "";
        if (g_unichar_validate(c) == FALSE) continue;
        text[g_unichar_to_utf8(c, text)] = '\0';
        const gboolean has = g_regex_match(regex, text, static_cast<GRegexMatchFlags>(0), nullptr);
        EXPECT_EQ(corvane::isUnprintable(c), has != FALSE) << std::hex << c;
    }
    g_regex_unref(regex);
}
