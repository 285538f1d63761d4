#include "Platform/LinuxMountTable.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <filesystem>

#include "Platform/TemporaryFolder.h"

namespace {

/** A mount table and loop devices made of files. */
class LinuxMountTableTest : public testing::Test {
protected:
    using MountState = PlatformDeviceOpener::MountState;

    void setMounts(const std::string& text) { _folder.file("mountinfo", text); }

    void addLoopDevice(const std::string& name, const std::string& number,
                       const std::string& backingFile)
    {
        _folder.file("sys/block/" + name + "/dev", number + "\n");
        _folder.file("sys/block/" + name + "/loop/backing_file", backingFile + "\n");
    }

    [[nodiscard]] LinuxMountTable table() const
    {
        return LinuxMountTable(_folder.path("mountinfo"), _folder.path("sys"));
    }

    /** As text, so that a failure says which of the two is wrong. */
    [[nodiscard]] std::string stateOfDevice(const LinuxMountTable::Device& device) const
    {
        return describe(table().stateOfDevice(device));
    }

    [[nodiscard]] std::string stateOfPath(const std::string& path) const
    {
        const LinuxMountTable mounts = table();
        return describe(mounts.stateOfDevice(mounts.deviceAtPath(path)));
    }

    static std::string describe(const MountState& state)
    {
        return !state.mounted ? "not mounted" : state.readOnly ? "read-only" : "writable";
    }

    TemporaryFolder _folder;
};

TEST_F(LinuxMountTableTest, ADeviceIsMountedWhenTheTableHasItsNumberUnderAnotherName)
{
    setMounts(
        "22 1 254:0 / / rw,relatime - ext4 /dev/root rw\n"
        "30 22 8:17 / /mnt rw,relatime shared:1 - hfsplus /dev/disk/by-label/Disk rw\n");

    EXPECT_EQ(stateOfDevice({"/dev/sdb1", {makedev(8, 17)}}), "writable");
    EXPECT_EQ(stateOfDevice({"/dev/sdb2", {makedev(8, 18)}}), "not mounted");
}

TEST_F(LinuxMountTableTest, ADeviceIsMountedWhenTheTableHasItsNameUnderAnotherNumber)
{
    setMounts("30 22 0:45 / /mnt rw,relatime - btrfs /dev/sdb1 rw,space_cache\n");

    EXPECT_EQ(stateOfDevice({"/dev/sdb1", {makedev(8, 17)}}), "writable");
    EXPECT_EQ(stateOfDevice({"/dev/sdb", {makedev(8, 16)}}), "not mounted");
}

TEST_F(LinuxMountTableTest, GivingTheRawDevicePathOfAMountedVolumeFindsItByItsBlockDeviceName)
{
    setMounts("30 22 0:45 / /mnt rw - fuse.hfs /dev/disk2s1 rw\n");

    EXPECT_EQ(stateOfDevice({"/dev/rdisk2s1", {}}), "writable");
    EXPECT_EQ(stateOfDevice({"/dev/r", {}}), "not mounted");
}

TEST_F(LinuxMountTableTest, ABlockDeviceWhoseOwnNameBeginsWithRIsFoundByThatName)
{
    setMounts("30 22 0:45 / /mnt rw - fuse.hfs /dev/rbd0 rw\n");

    EXPECT_EQ(stateOfDevice({"/dev/rbd0", {makedev(252, 0)}}), "writable");
}

TEST_F(LinuxMountTableTest, ReadOnlyIsTheFileSystemsFlagAndNotTheMounts)
{
    setMounts(
        "30 22 8:17 / /a rw,relatime - hfsplus /dev/sdb1 ro,umask=22\n"
        "31 22 8:18 / /b ro,relatime - hfsplus /dev/sdb2 rw,umask=22\n");

    EXPECT_EQ(stateOfDevice({"/dev/sdb1", {makedev(8, 17)}}), "read-only");
    EXPECT_EQ(stateOfDevice({"/dev/sdb2", {makedev(8, 18)}}), "writable");
}

TEST_F(LinuxMountTableTest, ADeviceMountedTwiceIsReadOnlyOnlyWhenBothMountsAre)
{
    setMounts(
        "30 22 8:17 / /a rw - hfsplus /dev/sdb1 ro\n"
        "31 22 8:17 / /b rw - hfsplus /dev/sdb1 ro\n"
        "32 22 8:18 / /c rw - hfsplus /dev/sdb2 rw\n"
        "33 22 8:18 / /d rw - hfsplus /dev/sdb2 ro\n");

    EXPECT_EQ(stateOfDevice({"/dev/sdb1", {makedev(8, 17)}}), "read-only");
    EXPECT_EQ(stateOfDevice({"/dev/sdb2", {makedev(8, 18)}}), "writable");
}

TEST_F(LinuxMountTableTest, OctalEscapesInNamesAreUndone)
{
    const std::string image = _folder.file("my disk\\1.img", "");
    std::string escaped = image;
    escaped.replace(escaped.find("my disk\\"), 8, "my\\040disk\\134");
    setMounts("30 22 0:45 / /mnt\\040point rw shared:3 master:4 - fuse.hfs " + escaped + " rw\n");

    EXPECT_EQ(stateOfPath(image), "writable");
}

TEST_F(LinuxMountTableTest, LinksToTheMountedDeviceAreFollowed)
{
    const std::string image = _folder.file("disk.img", "");
    std::filesystem::create_symlink(image, _folder.path("link"));
    setMounts("30 22 0:45 / /mnt rw - fuse.hfs " + image + " ro\n");

    EXPECT_EQ(stateOfPath(_folder.path("link")), "read-only");
}

TEST_F(LinuxMountTableTest, AnImageFileBehindAMountedLoopDeviceCountsAsMounted)
{
    const std::string image = _folder.file("disk.img", "");
    const std::string other = _folder.file("other.img", "");
    addLoopDevice("loop3", "7:3", image);
    addLoopDevice("loop4", "7:4", other);
    setMounts("30 22 7:3 / /mnt rw - hfsplus /dev/loop3 ro\n");

    EXPECT_EQ(stateOfPath(image), "read-only");
    EXPECT_EQ(stateOfPath(other), "not mounted");
}

TEST_F(LinuxMountTableTest, AnImageFileIsKnownByItsInodeAndNotByItsName)
{
    const std::string image = _folder.file("disk.img", "");
    std::filesystem::create_hard_link(image, _folder.path("hard link"));
    addLoopDevice("loop3", "7:3", image);
    setMounts("30 22 7:3 / /mnt rw - hfsplus /dev/loop3 rw\n");

    EXPECT_EQ(stateOfPath(_folder.path("hard link")), "writable");
}

TEST_F(LinuxMountTableTest, AnImageFileWithAMountedPartitionCountsAsMounted)
{
    const std::string image = _folder.file("disk.img", "");
    addLoopDevice("loop3", "7:3", image);
    _folder.file("sys/block/loop3/loop3p2/dev", "259:5\n");
    setMounts("30 22 259:5 / /mnt rw - hfsplus /dev/loop3p2 rw\n");

    EXPECT_EQ(stateOfPath(image), "writable");
}

TEST_F(LinuxMountTableTest, LoopDevicesWithoutAFileAreIgnored)
{
    const std::string image = _folder.file("disk.img", "");
    _folder.file("sys/block/loop0/dev", "7:0\n");
    addLoopDevice("loop1", "7:1", _folder.path("deleted.img") + " (deleted)");
    addLoopDevice("loop2", "nonsense", image);
    setMounts(
        "30 22 7:0 / /a rw - ext4 /dev/loop0 rw\n"
        "31 22 7:1 / /b rw - ext4 /dev/loop1 rw\n");

    EXPECT_EQ(stateOfPath(image), "not mounted");
}

TEST_F(LinuxMountTableTest, AnythingThatCannotBeReadIsNotMounted)
{
    const std::string image = _folder.file("disk.img", "");

    EXPECT_EQ(stateOfPath(image), "not mounted") << "there is no table";
    setMounts("30 22 8:17 / /mnt rw - hfsplus " + _folder.path("missing") + " rw\n");
    EXPECT_EQ(stateOfPath(_folder.path("missing")), "not mounted");
}

TEST_F(LinuxMountTableTest, MalformedLinesArePassedOver)
{
    setMounts(
        "\n"
        "30 22\n"
        "30 22 8:17 / /mnt rw shared:1 hfsplus /dev/sdb1 rw\n"
        "30 22 8:17 / /mnt rw - hfsplus\n"
        "30 22 8.17 / /mnt rw - hfsplus /dev/sdb1 rw\n"
        "30 22 8:17x / /mnt rw - hfsplus /dev/sdb1 rw\n"
        "31 22 8:18 / /mnt rw - hfsplus /dev/sdb2 rw\n");

    EXPECT_EQ(stateOfDevice({"/dev/sdb1", {makedev(8, 17)}}), "not mounted");
    EXPECT_EQ(stateOfDevice({"/dev/sdb2", {makedev(8, 18)}}), "writable");
}

TEST(LinuxMountTable, ReadsTheMachinesOwnTable)
{
    const LinuxMountTable table;

    // Its process information has to be mounted for this program to see anything at all.
    EXPECT_TRUE(table.stateOfDevice({"proc", {}}).mounted);
}

}  // namespace
