#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "house/SourceTree.h"

namespace {

using Faults = std::vector<std::string>;

const SourceTree& sources()
{
    static const SourceTree tree = readSourceTree(VZDEFRAG_SOURCES);
    return tree;
}

const SourceTree& controlSources()
{
    static const SourceTree tree = readSourceTree(VZDEFRAG_CONTROL_SOURCES);
    return tree;
}

/** What @p rule finds wrong in either program. */
Faults faultsOfBothPrograms(Faults (*rule)(const SourceTree&))
{
    Faults faults = rule(sources());
    const Faults ofControl = rule(controlSources());
    faults.insert(faults.end(), ofControl.begin(), ofControl.end());
    return faults;
}

SourceTree treeOf(const std::vector<SourceFile>& files)
{
    SourceTree tree;
    for (const SourceFile& file : files) {
        tree[file.path] = file;
    }
    return tree;
}

TEST(SourceRules, EveryLayerHasSourcesAndHeaders)
{
    for (const SourceLayer layer :
         {SourceLayer::kPlatform, SourceLayer::kKLKit, SourceLayer::kBase, SourceLayer::kHFSPlus,
          SourceLayer::kTasks, SourceLayer::kApplication}) {
        for (const bool header : {false, true}) {
            EXPECT_TRUE(std::ranges::any_of(sources(),
                                            [&](const auto& entry) {
                                                return entry.second.layer() == layer &&
                                                       entry.second.isHeader() == header;
                                            }))
                << "layer " << static_cast<int>(layer) << (header ? " headers" : " sources");
        }
    }
}

TEST(SourceRules, TheControllingProgramHasSourcesAndHeaders)
{
    EXPECT_TRUE(controlSources().contains("ControlMap.h"));
    EXPECT_TRUE(controlSources().contains("ControlMap.cpp"));
}

TEST(SourceRules, TheTwoProgramsIncludeNothingOfEachOther)
{
    EXPECT_EQ(includesOfAnotherTree(controlSources(), sources()), Faults{});
    EXPECT_EQ(includesOfAnotherTree(sources(), controlSources()), Faults{});
}

TEST(SourceRules, IncludesPointOnlyToTheSameOrALowerLayer)
{
    EXPECT_EQ(faultsOfBothPrograms(includesAgainstTheLayers), Faults{});
}

TEST(SourceRules, EverySourceIncludesItsOwnHeaderFirst)
{
    EXPECT_EQ(faultsOfBothPrograms(sourcesNotStartingWithTheirHeader), Faults{});
}

TEST(SourceRules, SourcesAndHeadersKeepTheirLimits)
{
    EXPECT_EQ(faultsOfBothPrograms(filesThatAreTooLong), Faults{});
}

TEST(SourceRules, EveryHeaderIsIncludedOnce)
{
    EXPECT_EQ(faultsOfBothPrograms(headersWithoutGuard), Faults{});
}

TEST(SourceRules, AnIncludeOfALayerAboveIsFound)
{
    const SourceTree tree = treeOf({
        {"HFSPlus/HFSPlusVolume.h", "#pragma once\n"},
        {"VZDefragTask.h", "#include \"HFSPlus/HFSPlusVolume.h\"\n"},
        {"Tasks/HFSPlusDefragTask.h", "#include \"HFSPlus/HFSPlusVolume.h\"\n"},
        {"KLKit/KLQueue.h", "#  include \"VZDefragTask.h\" // why\n"},
    });

    EXPECT_EQ(includesAgainstTheLayers(tree),
              (Faults{"KLKit/KLQueue.h includes VZDefragTask.h of a layer above its own",
                      "VZDefragTask.h includes HFSPlus/HFSPlusVolume.h of a layer above its own"}));
}

TEST(SourceRules, AnIncludeThatHidesBehindBracketsOrAnotherPathIsFound)
{
    const SourceTree tree = treeOf({
        {"KLKit/KLQueue.h", "#include <VZDefragTask.h>\n#include \"../main.h\"\n"},
        {"VZDefragTask.h", "#include <vector>\n"},
    });

    EXPECT_EQ(includesAgainstTheLayers(tree),
              (Faults{"KLKit/KLQueue.h includes ../main.h, which is no file of ours",
                      "KLKit/KLQueue.h includes VZDefragTask.h as if it were the system's"}));
}

TEST(SourceRules, AnIncludeOfTheOtherProgramIsFoundInBothForms)
{
    const SourceTree control = treeOf({
        {"ControlMap.h", "#include <HFSPlus/HFSPlusFormat.h>\n#include <vector>\n"},
        {"main.cpp", "#include \"ControlMap.h\"\n#include \"VZDefragTask.h\"\n"},
    });
    const SourceTree other = treeOf({
        {"HFSPlus/HFSPlusFormat.h", "#pragma once\n"},
        {"VZDefragTask.h", "#pragma once\n"},
        {"main.cpp", "\n"},
    });

    EXPECT_EQ(includesOfAnotherTree(control, other),
              (Faults{"ControlMap.h includes HFSPlus/HFSPlusFormat.h of another program",
                      "main.cpp includes VZDefragTask.h of another program"}));
}

TEST(SourceRules, ASourceThatBeginsWithAnotherHeaderIsFound)
{
    const SourceTree tree = treeOf({
        {"KLKit/KLQueue.cpp", "#include <vector>\n#include \"KLKit/KLQueue.h\"\n"},
        {"Platform/LinuxSystem.cpp", "#include \"Platform/PlatformSystem.h\"\n"},
        {"Platform/LinuxClock.cpp", "#include \"Platform/PlatformSystem.h\"\n"},
        {"main.cpp", "#include <memory>\n"},
        {"VZDefragTask.cpp", "\n"},
        {"KLKit/KLQueue.h", "#pragma once\n"},
        {"KLKit/KLQueueNodes.cpp", "#include \"KLKit/KLQueue.h\"\n"},
        {"HFSPlus/HFSPlusVolumeOpening.cpp", "#include \"KLKit/KLQueue.h\"\n"},
    });

    EXPECT_EQ(sourcesNotStartingWithTheirHeader(tree),
              (Faults{"HFSPlus/HFSPlusVolumeOpening.cpp does not include its own header first",
                      "KLKit/KLQueue.cpp does not include its own header first",
                      "Platform/LinuxClock.cpp does not include its own header first",
                      "VZDefragTask.cpp does not include its own header first"}));
}

TEST(SourceRules, FilesOneLineOverTheLimitAreFound)
{
    const SourceTree tree = treeOf({
        {"a.cpp", std::string(500, '\n')},
        {"b.cpp", std::string(501, '\n')},
        {"c.h", std::string(150, '\n')},
        {"d.h", std::string(151, '\n')},
    });

    EXPECT_EQ(filesThatAreTooLong(tree), (Faults{"b.cpp has 501 lines", "d.h has 151 lines"}));
}

TEST(SourceRules, AHeaderThatBeginsWithAnythingElseIsFound)
{
    const SourceTree tree = treeOf({
        {"a.h", "#pragma once\n"},
        {"a-generated.h", "// Written by a script.\n\n#pragma once\n"},
        {"b.h", "#include <vector>\n#pragma once\n"},
    });

    EXPECT_EQ(headersWithoutGuard(tree), Faults{"b.h does not begin with #pragma once"});
}

}  // namespace
