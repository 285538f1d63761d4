#include "protocol/StringsFile.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "protocol/VolumeImage.h"

namespace {

std::string propertyListOf(const StringsFile::Translations& translations, StringsFile::Form form)
{
    plist_t dictionary = plist_new_dict();
    for (const auto& [key, translation] : translations) {
        plist_dict_set_item(dictionary, key.c_str(), plist_new_string(translation.c_str()));
    }
    char* bytes = nullptr;
    uint32_t size = 0;
    if (form == StringsFile::Form::kXML) {
        plist_to_xml(dictionary, &bytes, &size);
    } else {
        plist_to_bin(dictionary, &bytes, &size);
    }
    EXPECT_NE(bytes, nullptr);
    std::string content(bytes, size);
    std::free(bytes);
    plist_free(dictionary);
    return content;
}

}  // namespace

StringsFile::StringsFile(const Translations& translations, Form form)
    : StringsFile(propertyListOf(translations, form))
{
}

StringsFile::StringsFile(std::string_view content) : _path(uniqueTemporaryPath("strings.plist"))
{
    std::ofstream(_path, std::ios::binary) << content;
}

StringsFile::~StringsFile()
{
    std::filesystem::remove(_path);
}
