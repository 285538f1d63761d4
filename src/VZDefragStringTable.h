#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

/** A strings file: translations of the English messages, by the English text.
 *
 *  The file is an XML or binary property list whose root is a dictionary. A value that cannot
 *  stand in a line of the protocol counts as missing: one that is no text, no valid UTF-8,
 *  longer than any message, or more than one line. Any thread may ask.
 */
class VZDefragStringTable {
public:
    /** Reads the file at @p path; null when it cannot be read, is too large or no such list. */
    [[nodiscard]] static std::unique_ptr<VZDefragStringTable> initWithFile(const std::string& path);

    /** The translation of @p key, or @p key itself. */
    [[nodiscard]] std::string localizedStringForKey(std::string_view key) const;

private:
    using Translations = std::map<std::string, std::string, std::less<>>;

    explicit VZDefragStringTable(Translations translations);

    Translations _translations;
};
