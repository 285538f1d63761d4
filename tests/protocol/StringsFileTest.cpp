#include "protocol/StringsFile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "house/SourceMessages.h"
#include "protocol/ToolProcess.h"
#include "protocol/VolumeImage.h"
#include "support/HFSPlusVolumeBuilder.h"

namespace {

using Words = std::vector<std::string>;
using Form = StringsFile::Form;

/** Every message of the program, each translated to itself behind a mark. */
StringsFile::Translations markedMessages()
{
    const SourceTree sources = readSourceTree(VZDEFRAG_SOURCES);
    StringsFile::Translations translations;
    for (const MessageUse& use : localizedMessagesIn(sources)) {
        translations[use.text] = "<T>" + use.text;
    }
    for (const MessageUse& use : untranslatedMessagesIn(sources)) {
        translations[use.text] = "<T>" + use.text;
    }
    return translations;
}

/** All that the tool prints with @p arguments and @p input; it must end with 0 and log nothing. */
std::string outputOf(const Words& arguments, const std::string& input = "")
{
    ToolProcess process({.program = VZDEFRAG_PROGRAM, .arguments = arguments});
    process.write(input);
    process.closeInput();
    std::string output = process.readToEnd();
    EXPECT_EQ(process.readErrorsToEnd(), "");
    EXPECT_EQ(process.wait(), 0);
    return output;
}

std::string lineOf(const std::string& message)
{
    return "ERROR," + message + "\n";
}

std::string invalid(const std::string& path)
{
    return lineOf("Strings file " + path + " is invalid.");
}

/** What an unknown command is answered with when its message is translated to @p translation. */
std::string answerWith(const std::string& translation)
{
    const VolumeImage image;
    const StringsFile strings(
        StringsFile::Translations{{"%1$@ is not a recognized command.", translation}});
    const std::string output = outputOf({"-s", strings.path(), image.path()}, "word\n");
    EXPECT_TRUE(output.starts_with("READY\n")) << output;
    return output.substr(std::string("READY\n").size());
}

/** The program with every message marked, from either form of file. */
class TranslatedMessages : public testing::TestWithParam<Form> {
protected:
    [[nodiscard]] std::string outputOf(Words arguments, const std::string& input = "") const
    {
        arguments.insert(arguments.begin(), {"--strings", strings.path()});
        return ::outputOf(arguments, input);
    }

    const StringsFile strings{markedMessages(), GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Forms, TranslatedMessages, testing::Values(Form::kXML, Form::kBinary),
                         [](const testing::TestParamInfo<Form>& form) {
                             return form.param == Form::kXML ? "XML" : "Binary";
                         });

TEST_P(TranslatedMessages, ErrorsOfTheCommandLineAreTranslated)
{
    EXPECT_EQ(outputOf({}), lineOf("<T>No device specified."));
    EXPECT_EQ(outputOf({"-i"}), lineOf("<T>Option -i requires an argument."));
    EXPECT_EQ(outputOf({"--interval", "0"}),
              lineOf("<T>Option --interval requires a positive time interval."));
}

TEST_P(TranslatedMessages, TheTwoMessagesAboutTheStringsFileAreNot)
{
    EXPECT_EQ(outputOf({"-s"}), lineOf("Option -s requires an argument."));
    EXPECT_EQ(outputOf({"--strings"}), lineOf("Option --strings requires an argument."));
    EXPECT_EQ(outputOf({"-s", "/no/such/file"}), invalid("/no/such/file"));
}

TEST_P(TranslatedMessages, ErrorsOfTheDeviceAreTranslated)
{
    EXPECT_EQ(outputOf({"/no/such,device"}),
              lineOf("<T>Unable to open /no/such\\,device. An error 2 occurred."));

    const StringsFile zeros(std::string(1 << 20, '\0'));
    EXPECT_EQ(outputOf({zeros.path()}), lineOf("<T>Unsupported volume format."));
}

TEST_P(TranslatedMessages, ABusyDeviceIsReportedTranslated)
{
    const VolumeImage image;
    ToolProcess first({.program = VZDEFRAG_PROGRAM, .arguments = {image.path()}});
    ASSERT_EQ(first.readLine(), "READY");

    EXPECT_EQ(outputOf({image.path()}), lineOf("<T>The device is busy."));
}

TEST_P(TranslatedMessages, ErrorsOfABrokenVolumeAreTranslated)
{
    const VolumeImage image;
    {
        std::fstream file(image.path(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(1024 + 40);  // the header's block size
        file.write("\0\0\0\3", 4);
    }

    EXPECT_TRUE(outputOf({image.path()}).starts_with("ERROR,<T>"));
}

TEST_P(TranslatedMessages, AnUnknownCommandIsReportedTranslated)
{
    const VolumeImage image;

    EXPECT_EQ(outputOf({image.path()}, "bogus\nalso\\bogus\n"),
              "READY\n" + lineOf("<T>bogus is not a recognized command.") +
                  lineOf("<T>also\\\\bogus is not a recognized command."));
}

TEST_P(TranslatedMessages, ErrorsOfACommandAreTranslatedAndItsOtherLinesAreNot)
{
    const VolumeImage image;

    for (const auto& [line, message] : std::vector<std::pair<std::string, std::string>>{
             {"DEFRAG --fast", "Unknown option: --fast"},
             {"DEFRAG -p", "Option -p requires an argument."},
             {"DEFRAG -p boat", "Unknown profile: boat"},
             {"FRAGINFO x", "Unknown option: x"},
             {"MAP", "No options specified."},
             {"MAP -i 0", "0 is not a valid CNID."},
             {"MAP -i 999", "Lookup failed for CNID 999."},
             {"MAP --path", "Option --path requires an argument."},
             {"BITMAP", "Scale argument is required."},
             {"BITMAP -m 0", "0 is not a positive integer."},
         }) {
        const std::string name = line.substr(0, line.find(' '));
        EXPECT_EQ(outputOf({image.path()}, line + "\n"), "READY\n" + name + ",START\n" + name +
                                                             ",ERROR,<T>" + message + "\n" + name +
                                                             ",DONE\n");
    }
}

TEST(StringsFile, AMessageThatTheFileLacksStaysEnglish)
{
    const StringsFile strings(StringsFile::Translations{{"No device specified", "kein Punkt"}});

    EXPECT_EQ(outputOf({"-s", strings.path()}), lineOf("No device specified."));
}

TEST(StringsFile, ItTakesEffectFromItsPlaceInTheCommandLineOn)
{
    const StringsFile strings(
        StringsFile::Translations{{"Option %1$@ requires an argument.", "%1$@ braucht etwas."}});

    EXPECT_EQ(outputOf({"-s", strings.path(), "-i"}), lineOf("-i braucht etwas."));
    EXPECT_EQ(outputOf({"-i", "0", "-s", strings.path()}),
              lineOf("Option -i requires a positive time interval."));
}

TEST(StringsFile, ALaterFileReplacesAnEarlierOneWhole)
{
    const StringsFile first(StringsFile::Translations{
        {"No device specified.", "erste"}, {"Option %1$@ requires an argument.", "erste %1$@"}});
    const StringsFile second(StringsFile::Translations{{"No device specified.", "zweite"}},
                             Form::kBinary);

    EXPECT_EQ(outputOf({"-s", first.path(), "-s", second.path()}), lineOf("zweite"));
    EXPECT_EQ(outputOf({"-s", second.path(), "-s", first.path()}), lineOf("erste"));
    EXPECT_EQ(outputOf({"-s", first.path(), "-s", second.path(), "-i"}),
              lineOf("Option -i requires an argument."));
}

TEST(StringsFile, WhatIsNoPropertyListWithADictionaryIsInvalid)
{
    const VolumeImage image;
    for (const std::string& content :
         {std::string(), std::string("No device specified. = nichts;\n"), std::string("<plist/>\n"),
          std::string("<plist><array><string>x</string></array></plist>"),
          std::string("<plist><dict><key>a</key><string>b</string>"),
          std::string("{\"No device specified.\": \"nichts\"}"),
          std::string("{ \"No device specified.\" = nichts; }"), std::string("bplist00"),
          "bplist00" + std::string(40, '\xFF'), std::string((4 << 20) + 1, ' ')}) {
        const StringsFile strings(content);
        EXPECT_EQ(outputOf({"-s", strings.path(), image.path()}), invalid(strings.path()))
            << content.substr(0, 40);
    }
}

TEST(StringsFile, AnEmptyDictionaryTranslatesNothing)
{
    for (const Form form : {Form::kXML, Form::kBinary}) {
        const StringsFile strings(StringsFile::Translations{}, form);
        EXPECT_EQ(outputOf({"-s", strings.path()}), lineOf("No device specified."));
    }
}

TEST(StringsFile, ItsOptionsValueIsNeverTakenForAnOption)
{
    EXPECT_EQ(outputOf({"-s", "-h"}), invalid("-h"));
}

TEST(StringsFile, ATranslationIsEscapedLikeEveryText)
{
    const StringsFile strings(
        StringsFile::Translations{{"No device specified.", "Kein Ger\xC3\xA4t, \\ nichts"}});

    EXPECT_EQ(outputOf({"-s", strings.path()}), lineOf("Kein Ger\xC3\xA4t\\, \\\\ nichts"));
}

TEST(StringsFile, ATranslationThatIsNotUTF8OrNotOneLineCountsAsMissing)
{
    for (const std::string& bad : {std::string("\xFF"), std::string("\xC3"),
                                   std::string("\xED\xA0\x80"), std::string("one\nERROR,two")}) {
        const StringsFile strings("<plist><dict><key>No device specified.</key><string>" + bad +
                                  "</string></dict></plist>");
        EXPECT_EQ(outputOf({"-s", strings.path()}), lineOf("No device specified."));
    }
}

TEST(StringsFile, ATranslationMayRepeatAndLeaveOutItsPlaceholders)
{
    EXPECT_EQ(answerWith("%1$@, %1$@"), lineOf("word\\, word"));
    EXPECT_EQ(answerWith("nothing"), lineOf("nothing"));
    EXPECT_EQ(answerWith(""), lineOf(""));
    EXPECT_EQ(answerWith("%@"), lineOf("word"));
}

TEST(StringsFile, ATranslationMaySwapItsPlaceholders)
{
    const StringsFile strings(StringsFile::Translations{
        {"Unable to open %1$@. An error %2$d occurred.", "%2$d: %1$@ (%2$d)"}});

    EXPECT_EQ(outputOf({"-s", strings.path(), "/no/such"}), lineOf("2: /no/such (2)"));
}

TEST(StringsFile, PlaceholdersThatDoNotFitNeitherCrashNorShowMemory)
{
    EXPECT_EQ(answerWith("%1$d %1$x %1$c %1$f %1$p"), lineOf("word word word word word"));
    EXPECT_EQ(answerWith("%2$@ %999$@ %0$@ %18446744073709551616$@"),
              lineOf("%2$@ %999$@ %0$@ %18446744073709551616$@"));
    EXPECT_EQ(answerWith("%s %s %x"), lineOf("word %s %x"));
    EXPECT_EQ(answerWith("%n%1$n%hhn%1$@"), lineOf("word"));
    EXPECT_EQ(answerWith("%*d %*1$d %1$*1$d"), lineOf("%*d %*1$d %1$*1$d"));
    EXPECT_EQ(answerWith("100%"), lineOf("100%"));
    EXPECT_EQ(answerWith("%1$"), lineOf("%1$"));
    EXPECT_EQ(answerWith("%%1$@"), lineOf("%1$@"));
    EXPECT_EQ(answerWith("%1000000000d"), lineOf(std::string(1020, ' ') + "word"));
    EXPECT_EQ(answerWith("%1$.2@"), lineOf("wo"));
}

TEST(StringsFile, AStringsFileMayComeThroughAPipe)
{
    ToolProcess process({.program = VZDEFRAG_PROGRAM, .arguments = {"-s", "/dev/stdin"}});

    process.write(
        "<plist><dict><key>No device specified.</key><string>keins</string></dict></plist>");
    process.closeInput();

    EXPECT_EQ(process.readToEnd(), lineOf("keins"));
    EXPECT_EQ(process.wait(), 0);
}

}  // namespace
