#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>

#include "HFSPlus/HFSPlusCatalogScanDelegate.h"
#include "HFSPlus/HFSPlusUnicode.h"
#include "HFSPlusCatalogTesting.h"
#include "Platform/LinuxDeviceOpener.h"
#include "VZDefragStringUtilities.h"

// Catalogs that a file-system driver wrote, against the list of what that driver shows.

namespace {

constexpr uint32_t kHardLinkType = 0x686C6E6B;  // "hlnk"

/** One file or folder of a list. */
struct Listed {
    char kind = 0;
    uint32_t cnid = 0;
    std::string path;  // from the root folder, composed
};

/** @p text with every "\xHH" as the byte that it stands for. */
std::string unescaped(const std::string& text)
{
    std::string bytes;
    for (size_t index = 0; index < text.size(); ++index) {
        if (text.compare(index, 2, "\\x") == 0 && index + 4 <= text.size()) {
            bytes.push_back(static_cast<char>(std::stoi(text.substr(index + 2, 2), nullptr, 16)));
            index += 3;
        } else {
            bytes.push_back(text[index]);
        }
    }
    return bytes;
}

std::vector<Listed> listOf(const std::string& name)
{
    std::ifstream file(std::string(VZ_SAMPLE_VOLUMES_DIR) + "/" + name + ".txt");
    std::vector<Listed> list;
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        Listed entry;
        std::string skipped;
        fields >> entry.kind >> entry.cnid >> skipped >> skipped >> skipped >> skipped >> skipped;
        fields.get();
        std::getline(fields, entry.path);
        // Resource forks and attributes belong to the line before; "." is the root folder.
        if (std::string_view("dflpscb").find(entry.kind) != std::string_view::npos &&
            entry.path != ".") {
            entry.path = "/" + unescaped(entry.path);
            list.push_back(entry);
        }
    }
    return list;
}

std::string decomposed(const std::string& path)
{
    std::u16string units;
    EXPECT_TRUE(unicodeUnitsOfString(path, units));
    const std::u16string name = HFSPlusDecomposedName(units);
    return stringWithUnicodeUnits(std::vector<uint16_t>(name.begin(), name.end()));
}

class HFSPlusCatalogSample : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override
    {
        const std::string path = std::string(VZ_SAMPLE_VOLUMES_DIR) + "/" + GetParam() + ".img";
        int errorNumber = 0;
        LinuxDeviceOpener opener;
        std::unique_ptr<PlatformBlockDevice> file = opener.openDevice(path, {}, errorNumber);
        ASSERT_NE(file, nullptr) << path << ": error " << errorNumber;
        const std::unique_ptr<VZDefragVolume> device =
            VZDefragVolume::initWithBlockDevice(path, std::move(file));
        ASSERT_NE(device, nullptr);
        std::unique_ptr<VZDefragError> error;
        _volume = HFSPlusVolume::initWithVolume(*device, &error);
        ASSERT_NE(_volume, nullptr) << error->description();
    }

    std::unique_ptr<HFSPlusVolume> _volume;
};

INSTANTIATE_TEST_SUITE_P(Volumes, HFSPlusCatalogSample,
                         testing::Values("plain4k", "blk1k", "journaled", "attrs"),
                         [](const testing::TestParamInfo<const char*>& name) {
                             return std::string(name.param);
                         });

TEST_P(HFSPlusCatalogSample, EveryPathLeadsToItsCNIDAndBack)
{
    HFSPlusCatalog& catalog = _volume->catalog();
    const std::vector<Listed> list = listOf(GetParam());

    ASSERT_GT(list.size(), 300U);
    for (const Listed& entry : list) {
        const HFSPlusCatalogAnswer found = lookUp(catalog, entry.path);
        ASSERT_EQ(found.error, "") << entry.path;
        ASSERT_EQ(found.record.recordType,
                  entry.kind == 'd' ? kHFSPlusFolderRecord : kHFSPlusFileRecord)
            << entry.path;
        ASSERT_EQ(pathOf(catalog, found.record.cnid()).path, decomposed(entry.path));
        uint32_t cnid = found.record.cnid();
        if (found.record.isFile() && found.record.file.fileType == kHardLinkType) {
            // The list tells the file that the link leads to, which has the link's number as name.
            const HFSPlusCatalogAnswer target = lookUp(catalog, entry.cnid);
            const std::string name =
                "iNode" + std::to_string(found.record.file.permissions.special);
            const std::string targetPath = pathOf(catalog, entry.cnid).path;
            ASSERT_TRUE(target.record.isFile()) << entry.path;
            ASSERT_TRUE(targetPath.ends_with("/" + name)) << targetPath;
            cnid = target.record.cnid();
        }
        ASSERT_EQ(cnid, entry.cnid) << entry.path;
    }
}

/** Collects the IDs of all files. */
class FileIDs final : public HFSPlusCatalogScanDelegate {
public:
    bool scanCatalogFile(const HFSPlusCatalogFile& file, std::span<const uint8_t> /*key*/,
                         VZDefragErrorSlot /*error*/) override
    {
        ids.insert(file.fileID);
        ++count;
        return true;
    }

    std::set<uint32_t> ids;
    uint32_t count = 0;
};

TEST_P(HFSPlusCatalogSample, AScanMeetsEveryFileOnce)
{
    FileIDs files;

    ASSERT_TRUE(_volume->scanCatalogFiles(files, nullptr));

    EXPECT_EQ(files.count, _volume->hostVolumeHeader().fileCount);
    EXPECT_EQ(files.ids.size(), files.count);
    for (const Listed& entry : listOf(GetParam())) {
        if (entry.kind != 'd') {
            EXPECT_TRUE(files.ids.contains(entry.cnid)) << entry.path;
        }
    }
}

}  // namespace
