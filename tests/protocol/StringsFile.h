#pragma once

#include <map>
#include <string>
#include <string_view>

/** A file with translated messages, which goes with the object. */
class StringsFile {
public:
    using Translations = std::map<std::string, std::string>;
    enum class Form { kXML, kBinary };

    /** A property list of @p translations. */
    explicit StringsFile(const Translations& translations, Form form = Form::kXML);
    /** A file with any @p content. */
    explicit StringsFile(std::string_view content);
    StringsFile(const StringsFile&) = delete;
    StringsFile& operator=(const StringsFile&) = delete;
    ~StringsFile();

    [[nodiscard]] const std::string& path() const { return _path; }

private:
    std::string _path;
};
