#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

/** A folder of its own for one test, removed with all that is in it. */
class TemporaryFolder {
public:
    /** Below the working directory, which is on a disk where the system's may be in memory. */
    TemporaryFolder()
    {
        std::string name = (std::filesystem::current_path() / "vzdefrag-test-XXXXXX").string();
        if (mkdtemp(name.data()) != nullptr) {
            _path = name;
        }
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder()
    {
        if (!_path.empty()) {
            std::error_code error;
            std::filesystem::remove_all(_path, error);
        }
    }

    /** The path of @p name in the folder, whether there is something or not. */
    [[nodiscard]] std::string path(std::string_view name) const { return (_path / name).string(); }

    /** Writes a file, its folders included, and gives its path. */
    std::string file(std::string_view name, std::string_view contents) const
    {
        const std::filesystem::path target = _path / name;
        std::error_code error;
        std::filesystem::create_directories(target.parent_path(), error);
        std::ofstream(target, std::ios::binary) << contents;
        return target.string();
    }

private:
    std::filesystem::path _path;
};
