#include "KLKit/KLToolEvent.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

TEST(KLToolEvent, AStringEventCarriesItsLine)
{
    const KLToolEvent event(KLToolEventStringType, std::string("SCAN -f"));

    EXPECT_EQ(event.type(), "KLToolEventStringType");
    EXPECT_EQ(event.string(), "SCAN -f");
    EXPECT_TRUE(event.arguments().empty());
}

TEST(KLToolEvent, AnArgumentsEventCarriesItsWords)
{
    const std::vector<std::string> words = {"vzdefrag", "--quit", "disk"};
    const KLToolEvent event(KLToolEventArgumentsType, words);

    EXPECT_EQ(event.type(), "KLToolEventArgumentsType");
    EXPECT_EQ(event.arguments(), words);
    EXPECT_EQ(event.string(), "");
}

TEST(KLToolEvent, AnEventWithoutAStringReadsAsEmpty)
{
    const KLToolEvent event(KLToolEventStringType, std::monostate());

    EXPECT_EQ(event.string(), "");
    EXPECT_TRUE(std::holds_alternative<std::monostate>(event.data()));
}

TEST(KLToolEvent, TheThreeTypesAreNamedAsTheyAreSpelled)
{
    EXPECT_STREQ(KLToolEventArgumentsType, "KLToolEventArgumentsType");
    EXPECT_STREQ(KLToolEventCharacterType, "KLToolEventCharacterType");
    EXPECT_STREQ(KLToolEventStringType, "KLToolEventStringType");
}

}  // namespace
