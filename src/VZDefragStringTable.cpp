#include "VZDefragStringTable.h"

#include <array>
#include <fstream>
#include <optional>
#include <utility>

#include "KLKit/KLStringUtilities.h"
#include "Platform/PlatformPropertyList.h"

namespace {

constexpr size_t kMaximumFileSize = 4 << 20;         // bytes
constexpr size_t kMaximumTranslationSize = 8 << 10;  // bytes, so that no line grows without bound

/** Everything in the file; nothing when it cannot be read or is too large. */
std::optional<std::string> contentsOfFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string contents;
    std::array<char, 65536> chunk;
    // Until nothing more comes: the size of a pipe or a device says nothing.
    while (file.good() && contents.size() <= kMaximumFileSize) {
        file.read(chunk.data(), chunk.size());
        contents.append(chunk.data(), static_cast<size_t>(file.gcount()));
    }
    // A folder opens like a file; only reading fails.
    if (!file.eof() || file.bad() || contents.size() > kMaximumFileSize) {
        return std::nullopt;
    }
    return contents;
}

bool isUsable(std::string_view translation)
{
    return translation.size() <= kMaximumTranslationSize && isValidUTF8(translation) &&
           translation.find('\n') == std::string_view::npos;
}

}  // namespace

VZDefragStringTable::VZDefragStringTable(Translations translations)
    : _translations(std::move(translations))
{
}

std::unique_ptr<VZDefragStringTable> VZDefragStringTable::initWithFile(const std::string& path)
{
    const std::optional<std::string> contents = contentsOfFile(path);
    if (!contents) {
        return nullptr;
    }
    std::optional<Translations> translations = PlatformStringsInPropertyList(*contents);
    if (!translations) {
        return nullptr;
    }
    std::erase_if(*translations, [](const auto& entry) { return !isUsable(entry.second); });
    return std::unique_ptr<VZDefragStringTable>(new VZDefragStringTable(std::move(*translations)));
}

std::string VZDefragStringTable::localizedStringForKey(std::string_view key) const
{
    const auto found = _translations.find(key);
    return found != _translations.end() ? found->second : std::string(key);
}
