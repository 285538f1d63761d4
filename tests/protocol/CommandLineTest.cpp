#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "protocol/ToolProcess.h"
#include "protocol/VolumeImage.h"

namespace {

using Words = std::vector<std::string>;

/** Everything that the tool prints with these arguments and no commands; it must end with 0. */
std::string outputOf(const Words& arguments)
{
    ToolProcess process({.program = VZDEFRAG_PROGRAM, .arguments = arguments});
    process.closeInput();
    std::string output = process.readToEnd();
    EXPECT_EQ(process.readErrorsToEnd(), "");
    EXPECT_EQ(process.wait(), 0);
    return output;
}

TEST(CommandLine, AGoodDeviceIsReadyBeforeAnyCommandIsSent)
{
    const VolumeImage image;
    ToolProcess process({.program = VZDEFRAG_PROGRAM, .arguments = {image.path()}});

    EXPECT_EQ(process.readLine(), "READY");
    process.closeInput();
    EXPECT_EQ(process.readToEnd(), "");
    EXPECT_EQ(process.wait(), 0);
}

TEST(CommandLine, HelpEndsTheToolAtOnceWithNoOutputAtAll)
{
    const VolumeImage image;

    EXPECT_EQ(outputOf({"-h"}), "");
    EXPECT_EQ(outputOf({"--help"}), "");
    EXPECT_EQ(outputOf({"-h", image.path()}), "");
    EXPECT_EQ(outputOf({image.path(), "--help"}), "");
}

TEST(CommandLine, OptionsAfterHelpAreNotExamined)
{
    EXPECT_EQ(outputOf({"-h", "--interval"}), "");
    EXPECT_EQ(outputOf({"-h", "-i", "abc", "/no/such/device"}), "");
}

TEST(CommandLine, AnErrorBeforeHelpIsPrinted)
{
    EXPECT_EQ(outputOf({"-i", "abc", "-h"}),
              "ERROR,Option -i requires a positive time interval.\n");
}

TEST(CommandLine, WithoutADeviceThereIsAnError)
{
    EXPECT_EQ(outputOf({}), "ERROR,No device specified.\n");
    EXPECT_EQ(outputOf({"--quit", "-L", "--safe-boot"}), "ERROR,No device specified.\n");
}

TEST(CommandLine, AnUnknownOptionIsTakenForTheDeviceAndTheRealOneIsIgnored)
{
    const VolumeImage image;

    EXPECT_EQ(outputOf({"--fast", image.path()}),
              "ERROR,Unable to open --fast. An error 2 occurred.\n");
}

TEST(CommandLine, OptionsAreCaseSensitive)
{
    EXPECT_EQ(outputOf({"--QUIT"}), "ERROR,Unable to open --QUIT. An error 2 occurred.\n");
}

TEST(CommandLine, FurtherDevicesAreIgnored)
{
    const VolumeImage image;

    EXPECT_EQ(outputOf({image.path(), "/no/such/device"}), "READY\n");
}

TEST(CommandLine, AnOptionThatLacksItsValueIsAnError)
{
    const VolumeImage image;

    EXPECT_EQ(outputOf({image.path(), "-i"}), "ERROR,Option -i requires an argument.\n");
    EXPECT_EQ(outputOf({"--interval"}), "ERROR,Option --interval requires an argument.\n");
    EXPECT_EQ(outputOf({image.path(), "-s"}), "ERROR,Option -s requires an argument.\n");
    EXPECT_EQ(outputOf({"--strings"}), "ERROR,Option --strings requires an argument.\n");
}

TEST(CommandLine, AnIntervalOfZeroOrNoNumberIsAnError)
{
    const VolumeImage image;
    const std::string expected = "ERROR,Option --interval requires a positive time interval.\n";

    for (const char* const value : {"0", "abc", "", "-1", "0.0", " ", "nan", "inf", "+", "s2"}) {
        EXPECT_EQ(outputOf({"--interval", value, image.path()}), expected) << value;
    }
    EXPECT_EQ(outputOf({"-i", "0"}), "ERROR,Option -i requires a positive time interval.\n");
}

TEST(CommandLine, AnIntervalMayHaveBlanksBeforeAndAnythingAfter)
{
    const VolumeImage image;

    for (const char* const value : {"0.25", "2s", " \t3", "+1", ".5", "1e-3", "5,7"}) {
        EXPECT_EQ(outputOf({"-i", value, image.path()}), "READY\n") << value;
    }
}

TEST(CommandLine, AnIntervalsValueIsNeverTakenForAnOption)
{
    EXPECT_EQ(outputOf({"-i", "-h"}), "ERROR,Option -i requires a positive time interval.\n");
}

TEST(CommandLine, QuitWithAGoodDevicePrintsNothing)
{
    const VolumeImage image;

    EXPECT_EQ(outputOf({"--quit", image.path()}), "");
    EXPECT_EQ(outputOf({image.path(), "-q"}), "");
}

TEST(CommandLine, QuitWithABadDevicePrintsTheOpenError)
{
    EXPECT_EQ(outputOf({"--quit", "/no/such/device"}),
              "ERROR,Unable to open /no/such/device. An error 2 occurred.\n");
}

TEST(CommandLine, AFileWithoutAVolumeIsUnsupported)
{
    const std::string path = uniqueTemporaryPath("zeros.img");
    std::ofstream(path, std::ios::binary) << std::string(1 << 20, '\0');

    EXPECT_EQ(outputOf({path}), "ERROR,Unsupported volume format.\n");
    std::filesystem::remove(path);
}

TEST(CommandLine, ACommaInADevicesPathIsEscaped)
{
    EXPECT_EQ(outputOf({"/no/such,device\\x"}),
              "ERROR,Unable to open /no/such\\,device\\\\x. An error 2 occurred.\n");
}

TEST(CommandLine, AStringsFileThatCannotBeReadIsInvalid)
{
    EXPECT_EQ(outputOf({"-s", "/no/such,file"}),
              "ERROR,Strings file /no/such\\,file is invalid.\n");
    EXPECT_EQ(outputOf({"--strings", "/"}), "ERROR,Strings file / is invalid.\n");
}

TEST(CommandLine, TheFirstErrorStopsTheOptions)
{
    EXPECT_EQ(outputOf({"-s", "/no/such/file", "-i", "0"}),
              "ERROR,Strings file /no/such/file is invalid.\n");
}

TEST(CommandLine, LowPriorityPutsTheWholeProcessIntoTheIdleClass)
{
    const VolumeImage image;
    for (const char* const option : {"-L", "--lowpri"}) {
        ToolProcess process({.program = VZDEFRAG_PROGRAM, .arguments = {option, image.path()}});
        EXPECT_EQ(process.readLine(), "READY");

        EXPECT_EQ(::syscall(SYS_ioprio_get, 1, process.processID()) >> 13, 3);
        process.closeInput();
        EXPECT_EQ(process.wait(), 0);
    }
}

TEST(CommandLine, SafeBootIsAcceptedForADeviceThatIsNotMounted)
{
    const VolumeImage image;

    EXPECT_EQ(outputOf({"--safe-boot", image.path()}), "READY\n");
}

TEST(CommandLine, ASecondToolOnTheSameDeviceFindsItBusy)
{
    const VolumeImage image;
    ToolProcess first({.program = VZDEFRAG_PROGRAM, .arguments = {image.path()}});
    EXPECT_EQ(first.readLine(), "READY");

    EXPECT_EQ(outputOf({image.path()}), "ERROR,The device is busy.\n");

    first.write("QUIT\n");
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(outputOf({image.path()}), "READY\n");
}

TEST(CommandLine, TheDeviceIsDescribedInTheLogAtLevelInfo)
{
    const VolumeImage image;
    ToolProcess process({.program = VZDEFRAG_PROGRAM,
                         .arguments = {"--quit", image.path()},
                         .environment = {{"KLDebugLevel", "info"}}});

    const std::string log = process.readErrorsToEnd();

    EXPECT_NE(log.find("Device info         = " + image.path() +
                       ", 3.906MiB (block size = 512, total blocks = 8000)\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(process.readToEnd(), "");
    EXPECT_EQ(process.wait(), 0);
}

TEST(CommandLine, AClosedStandardOutputDoesNotBecomeTheDevice)
{
    const VolumeImage image;
    const std::string before = image.bytes();
    ToolProcess process(
        {.program = VZDEFRAG_PROGRAM, .arguments = {image.path()}, .outputClosed = true});

    process.write("bogus\nQUIT\n");

    EXPECT_EQ(process.wait(), 0);
    EXPECT_EQ(image.bytes(), before);
}

TEST(CommandLine, StartingAndQuittingLeavesEveryByteOfTheVolume)
{
    const VolumeImage image;
    const std::string before = image.bytes();

    EXPECT_EQ(outputOf({image.path()}), "READY\n");

    EXPECT_EQ(image.bytes(), before);
}

}  // namespace
