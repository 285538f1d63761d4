#include "ControlOutputFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace {

class ControlOutputFile : public ::testing::Test {
protected:
    ControlOutputFile() : _folder(::testing::TempDir() + "control-output-XXXXXX")
    {
        EXPECT_NE(::mkdtemp(_folder.data()), nullptr);
        _path = _folder + "/page.html";
    }
    ~ControlOutputFile() override { std::filesystem::remove_all(_folder); }

    void put(const std::string& content) const { std::ofstream(_path) << content; }
    [[nodiscard]] std::string content() const
    {
        std::ifstream file(_path);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    [[nodiscard]] size_t fileCount() const
    {
        const std::filesystem::directory_iterator files(_folder);
        return static_cast<size_t>(std::distance(begin(files), end(files)));
    }
    /** The failure of writing "first\nnew\n"; nothing when it was written. */
    [[nodiscard]] std::optional<ControlFailure> failure(const std::string& path) const
    {
        std::optional<ControlFailure> refusal;
        const bool isRefused = !mayWriteOutputFile(path, "first", &refusal);
        EXPECT_EQ(isRefused, refusal.has_value());
        std::optional<ControlFailure> failure;
        const bool isWritten = writeOutputFile(path, "first\nnew\n", &failure);
        EXPECT_EQ(isWritten, !failure.has_value());
        EXPECT_EQ(isRefused, failure.has_value() && failure->status == ControlStatus::kRefused);
        return failure;
    }

    std::string _folder;
    std::string _path;
};

TEST_F(ControlOutputFile, NewFilesAreWrittenAsTheMaskOfModesAllows)
{
    const mode_t mask = ::umask(027);
    EXPECT_FALSE(failure(_path).has_value());
    ::umask(mask);

    struct stat status = {};
    ASSERT_EQ(::stat(_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
    EXPECT_EQ(content(), "first\nnew\n");
    EXPECT_EQ(fileCount(), 1U);
}

TEST_F(ControlOutputFile, EmptyFilesAndOlderVersionsAreReplaced)
{
    for (const char* older : {"", "first\nold and much longer\n", "first"}) {
        put(older);
        EXPECT_FALSE(failure(_path).has_value()) << older;
        EXPECT_EQ(content(), "first\nnew\n");
    }
}

TEST_F(ControlOutputFile, AnythingElseStaysAsItIs)
{
    for (const char* other : {"a volume", "firs", "\n", "second\nnew\n"}) {
        put(other);
        const auto refused = failure(_path);
        ASSERT_TRUE(refused.has_value()) << other;
        EXPECT_EQ(refused->status, ControlStatus::kRefused);
        EXPECT_EQ(refused->message, _path + " holds something else and is left as it is.");
        EXPECT_EQ(content(), other);
    }
    EXPECT_EQ(failure(_folder)->status, ControlStatus::kRefused);
}

TEST_F(ControlOutputFile, AFileThatCannotBeWrittenIsNamedWithTheReason)
{
    const auto failed = failure(_folder + "/none/page.html");

    ASSERT_TRUE(failed.has_value());
    EXPECT_EQ(failed->status, ControlStatus::kInputOutput);
    EXPECT_EQ(failed->message,
              _folder + "/none/page.html cannot be written: No such file or directory.");
    EXPECT_EQ(fileCount(), 0U);
}

TEST_F(ControlOutputFile, DevicesThatAreNoDisksAreWrittenTo)
{
    EXPECT_FALSE(failure("/dev/null").has_value());
    ASSERT_TRUE(failure("/dev/full").has_value());
    EXPECT_EQ(failure("/dev/full")->message,
              "/dev/full cannot be written: No space left on device.");
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

}  // namespace
