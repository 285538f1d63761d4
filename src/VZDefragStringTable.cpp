#include "VZDefragStringTable.h"

#include <optional>
#include <utility>

#include "KLKit/KLStringUtilities.h"
#include "Platform/PlatformFile.h"
#include "Platform/PlatformPropertyList.h"

namespace {

constexpr size_t kMaximumFileSize = 4 << 20;         // bytes
constexpr size_t kMaximumTranslationSize = 8 << 10;  // bytes, so that no line grows without bound

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
    const std::optional<std::string> contents = PlatformContentsOfFile(path, kMaximumFileSize);
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
