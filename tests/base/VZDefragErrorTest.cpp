#include "VZDefragError.h"

#include <gtest/gtest.h>

#include "base/ManualServices.h"

namespace {

TEST(VZDefragError, TheDescriptionIsTheFormatWithItsArgumentsInTheirPlaces)
{
    const auto error = VZDefragError::errorWithFormat("%2$d before %1$@", "word", 7);

    EXPECT_EQ(error->description(), "7 before word");
    EXPECT_FALSE(error->isUserCancelled());
}

TEST(VZDefragError, ACancellationHasItsTextAndItsFlag)
{
    const auto error = VZDefragError::errorUserCancelled();

    EXPECT_EQ(error->description(), "User cancelled.");
    EXPECT_TRUE(error->isUserCancelled());
}

TEST(VZDefragError, ACancellationIsNeverTranslated)
{
    ManualServices services;
    services.translations["User cancelled."] = "Abgebrochen.";
    std::unique_ptr<VZDefragError> error;

    EXPECT_FALSE(VZDefragFailCancelled(&error));
    EXPECT_EQ(error->description(), "User cancelled.");
}

TEST(VZDefragError, OnlyTheFirstFailureFillsTheSlot)
{
    std::unique_ptr<VZDefragError> error;

    EXPECT_TRUE(VZDefragWantsError(&error));
    EXPECT_FALSE(VZDefragFail(&error, "First %1$d.", 1));
    EXPECT_FALSE(VZDefragWantsError(&error));
    EXPECT_FALSE(VZDefragFail(&error, "Second."));
    EXPECT_FALSE(VZDefragFailCancelled(&error));
    EXPECT_FALSE(VZDefragFailInternal(&error, "a.cpp", 1));

    EXPECT_EQ(error->description(), "First 1.");
    EXPECT_FALSE(error->isUserCancelled());
}

TEST(VZDefragError, WithoutASlotFailingSaysNothing)
{
    EXPECT_FALSE(VZDefragWantsError(nullptr));
    EXPECT_FALSE(VZDefragFail(nullptr, "Nobody reads %1$@.", "this"));
    EXPECT_FALSE(VZDefragFailCancelled(nullptr));
    EXPECT_FALSE(VZDefragFailInternal(nullptr, "a.cpp", 1));
}

TEST(VZDefragError, TheFormatIsTranslatedBeforeItsArgumentsAreFilledIn)
{
    ManualServices services;
    services.translations["%1$@ of %2$@"] = "%2$@ hat %1$@";
    std::unique_ptr<VZDefragError> error;

    EXPECT_FALSE(VZDefragFail(&error, "%1$@ of %2$@", "one", "two"));

    EXPECT_EQ(error->description(), "two hat one");
}

TEST(VZDefragError, AnInternalErrorNamesItsSourceAndLine)
{
    std::unique_ptr<VZDefragError> error;

    EXPECT_FALSE(VZDefragFailInternal(&error, "HFSPlus/HFSPlusExtentMap.cpp", 321));

    EXPECT_EQ(error->description(), "Internal error: HFSPlus/HFSPlusExtentMap.cpp:321");
}

TEST(VZDefragServices, WithoutAnApplicationMessagesStayEnglishAndTheIntervalIsOneSecond)
{
    VZDefragServices::setSharedServices(nullptr);
    VZDefragServices& services = VZDefragServices::sharedServices();
    bool performed = false;
    services.performOnMainThread([&performed] { performed = true; });

    EXPECT_EQ(services.localizedStringForKey("The device is busy."), "The device is busy.");
    EXPECT_EQ(services.progressInterval(), 1.0);
    EXPECT_TRUE(performed);
    const double before = services.timeIntervalSinceReferenceDate();
    EXPECT_GT(before, 0.0);
    EXPECT_GE(services.timeIntervalSinceReferenceDate(), before);
}

}  // namespace
