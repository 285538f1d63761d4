#include "ControlRollback.h"

#include <openssl/sha.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace {

constexpr size_t kNameLimit = 64;    // bytes of the image's own name in the file's
constexpr size_t kDigestBytes = 10;  // enough to tell all images of a machine apart
constexpr const char* kExtension = ".rollback";
constexpr mode_t kOwnerAlone = 0700;

/** @p name without what shells and people stumble over. */
std::string plainName(const std::string& name)
{
    std::string plain = name.substr(0, kNameLimit);
    std::ranges::replace_if(
        plain,
        [](unsigned char byte) {
            return (byte < '0' || byte > '9') && (byte < 'A' || byte > 'Z') &&
                   (byte < 'a' || byte > 'z') && byte != '.' && byte != '-';
        },
        '_');
    return plain;
}

std::string digestOf(const std::string& text)
{
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest = {};
    ::SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
    std::string digits;
    for (size_t index = 0; index < kDigestBytes; index++) {
        constexpr std::string_view kDigits = "0123456789abcdef";
        digits += kDigits[digest.at(index) >> 4U];
        digits += kDigits[digest.at(index) & 0xFU];
    }
    return digits;
}

/** The folder for what programs remember; empty when nothing names one. */
std::string stateFolder()
{
    const char* const state = std::getenv("XDG_STATE_HOME");
    // Relative ones are to be ignored.
    if (state != nullptr && *state == '/') {
        return state;
    }
    const char* const home = std::getenv("HOME");
    return home != nullptr && *home == '/' ? std::string(home) + "/.local/state" : std::string();
}

}  // namespace

std::string ControlRollback::pathForImage(const std::string& image, ControlErrorSlot error)
{
    const std::string folder = stateFolder();
    if (folder.empty()) {
        ControlFail(error, ControlStatus::kUsage,
                    "Neither XDG_STATE_HOME nor HOME says where to keep a rollback file. "
                    "Name one with --rollback FILE, or do without with --no-rollback.");
        return {};
    }
    std::error_code failure;
    const std::filesystem::path path = std::filesystem::canonical(image, failure);
    if (failure) {
        ControlFail(error, ControlStatus::kUsage,
                    "Unable to open " + image + ": " + failure.message() + ".");
        return {};
    }
    return folder + "/vzdefrag/" + plainName(path.filename().string()) + "-" +
           digestOf(path.string()) + kExtension;
}

bool ControlRollback::holdsRecords(const std::string& path)
{
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0 && status.st_size > 0;
}

bool ControlRollback::canLookAt(const std::string& path, ControlErrorSlot error)
{
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0 || errno == ENOENT || errno == ENOTDIR ||
           ControlFail(
               error, ControlStatus::kInputOutput,
               "Unable to look for rollback file " + path + ": " + std::strerror(errno) + ".");
}

std::vector<std::string> ControlRollback::othersWithRecords(const std::string& path)
{
    std::vector<std::string> files;
    const std::string folder = stateFolder();
    if (folder.empty()) {
        return files;
    }
    std::error_code failure;
    std::filesystem::directory_iterator entry(folder + "/vzdefrag", failure);
    for (; !failure && entry != std::filesystem::directory_iterator(); entry.increment(failure)) {
        const std::string file = entry->path().string();
        if (file != path && file.ends_with(kExtension) && holdsRecords(file)) {
            files.push_back(file);
        }
    }
    std::ranges::sort(files);
    return files;
}

bool ControlRollback::makeFolders(const std::string& path, ControlErrorSlot error)
{
    for (size_t position = path.find('/', 1); position != std::string::npos;
         position = path.find('/', position + 1)) {
        const std::string folder = path.substr(0, position);
        if (::mkdir(folder.c_str(), kOwnerAlone) != 0 && errno != EEXIST) {
            return ControlFail(error, ControlStatus::kInputOutput,
                               "Unable to make " + folder + ": " + std::strerror(errno) + ".");
        }
    }
    return true;
}
