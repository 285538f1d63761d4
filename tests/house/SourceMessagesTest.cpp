#include "house/SourceMessages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

namespace {

using Faults = std::vector<std::string>;
using Texts = std::set<std::string>;

const SourceTree& sources()
{
    static const SourceTree tree = readSourceTree(VZDEFRAG_SOURCES);
    return tree;
}

SourceTree treeOf(const std::string& path, const std::string& text)
{
    return {{path, SourceFile{.path = path, .text = text}}};
}

Texts textsOf(const std::vector<MessageUse>& uses)
{
    Texts texts;
    for (const MessageUse& use : uses) {
        texts.insert(use.text);
    }
    return texts;
}

TEST(SourceMessages, EveryMessageGoesThroughTheStringsFile)
{
    EXPECT_EQ(messagesThatBypassTheStringsFile(sources()), Faults{});
}

TEST(SourceMessages, OnlyTheTwoMessagesOfTheStringsOptionAreNotLookedUp)
{
    EXPECT_EQ(textsOf(untranslatedMessagesIn(sources())),
              (Texts{"Option %1$@ requires an argument.", "Strings file %1$@ is invalid."}));
    EXPECT_EQ(untranslatedMessagesIn(sources()).size(), 2U);
}

TEST(SourceMessages, TheTextOfEveryMessageIsKnown)
{
    EXPECT_EQ(messagesOfUnknownText(sources()), Faults{});
}

TEST(SourceMessages, EveryMessageTakesTheArgumentsThatItIsGiven)
{
    EXPECT_EQ(messagesWhosePlaceholdersDoNotFit(sources()), Faults{});
}

TEST(SourceMessages, MessagesOfEveryKindOfPlaceAreAmongThem)
{
    const Texts texts = textsOf(localizedMessagesIn(sources()));

    for (const char* const text :
         {"No device specified.", "%1$@ is not a recognized command.",
          "Option %1$@ requires an argument.", "Unable to open %1$@. An error %2$d occurred.",
          "Read failed with an error %d at offset %llu and size %lu.", "Write failure.",
          "Catalog file is inconsistent.", "Volume is inconsistent.",
          "B-Tree file has inconsistent map node.", "B-Tree header is inconsistent.",
          "Overflow extents file is inconsistent.", "Internal error: %1$s:%2$u",
          "Unknown profile: %1$@", "Volume is too congested, unable to continue."}) {
        EXPECT_TRUE(texts.contains(text)) << text;
    }
}

TEST(SourceMessages, AMessageIsFoundHoweverItIsGiven)
{
    const SourceTree tree = treeOf("Tasks/X.cpp", R"(
        constexpr std::string_view kFirst = "By constant.";
        constexpr std::string_view kSecond =
            "In two "
            "parts.";
        bool pass(int index, std::string_view text, VZDefragErrorSlot error)
        {
            return VZDefragFail(error, text);
        }
        template <typename... Arguments>
        void print(std::string_view format, const Arguments&... arguments)
        {
            VZDefragFail(&error, format, arguments...);
        }
        bool work()
        {
            VZDefragFail(error, "Directly, in (parentheses) of %1$@.", f(a, b));  // "no" (
            VZDefragFail(error, index == 0 ? kFirst : kSecond);
            const std::string_view chosen = index == 0 ? "One." : "Other.";
            VZDefragFail(error, chosen);
            pass(1, "Passed on.", error);
            print("With %1$u and %2$u.", 1'000, ',');
        })");

    EXPECT_EQ(textsOf(localizedMessagesIn(tree)),
              (Texts{"Directly, in (parentheses) of %1$@.", "By constant.", "In two parts.", "One.",
                     "Other.", "Passed on.", "With %1$u and %2$u."}));
    EXPECT_EQ(messagesWhosePlaceholdersDoNotFit(tree), Faults{});
    EXPECT_EQ(messagesOfUnknownText(tree), Faults{});
}

TEST(SourceMessages, AMessageThatIsMadeUpOnTheSpotIsFound)
{
    const SourceTree tree = treeOf("Tasks/X.cpp", R"(
        bool work() { return VZDefragFail(error, "File " + name); }
        bool rest() { return VZDefragFail(error, makeMessage()); })");

    EXPECT_EQ(messagesOfUnknownText(tree), (Faults{"Tasks/X.cpp fails with \"File \" + name",
                                                   "Tasks/X.cpp fails with makeMessage()"}));
}

TEST(SourceMessages, AMessagePastTheStringsFileIsFound)
{
    EXPECT_EQ(messagesThatBypassTheStringsFile(treeOf(
                  "Tasks/X.cpp", "auto e = VZDefragError::errorWithFormat(\"No %1$@.\", name);")),
              Faults{"Tasks/X.cpp calls errorWithFormat"});
    EXPECT_EQ(messagesThatBypassTheStringsFile(
                  treeOf("HFSPlus/X.cpp", "auto e = VZDefragError::errorWithDescription(text);")),
              Faults{"HFSPlus/X.cpp calls errorWithDescription"});
    EXPECT_EQ(messagesThatBypassTheStringsFile(
                  treeOf("Tasks/X.cpp", "VZDefragWriteOutput(\"SCAN,ERROR,No.\\n\");")),
              Faults{"Tasks/X.cpp prints an error line"});
}

TEST(SourceMessages, PlaceholdersThatDoNotFitTheArgumentsAreFound)
{
    const SourceTree tree = treeOf("Tasks/X.cpp", R"(
        bool work()
        {
            VZDefragFail(error, "%1$@ alone.");
            VZDefragFail(error, "None.", 1);
            VZDefragFail(error, "%1$@ %3$@", 1, 2);
            VZDefragFail(error, "%1$@ %u", 1, 2);
            VZDefragFail(error, "100%% of %u", 1);
        })");

    EXPECT_EQ(
        messagesWhosePlaceholdersDoNotFit(tree),
        (Faults{"Tasks/X.cpp fills \"%1$@ alone.\" with 0", "Tasks/X.cpp fills \"None.\" with 1",
                "Tasks/X.cpp fills \"%1$@ %3$@\" with 2", "Tasks/X.cpp fills \"%1$@ %u\" with 2"}));
}

}  // namespace
