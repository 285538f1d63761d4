#include "ControlFileText.h"

#include <array>
#include <cstdio>
#include <ctime>

std::string readableDate(int64_t seconds)
{
    constexpr int64_t kFirst = -62135596800;  // the first second of year 1
    constexpr int64_t kLast = 253402300799;   // the last one of year 9999
    std::tm fields = {};
    const auto time = static_cast<std::time_t>(seconds);
    if (seconds < kFirst || seconds > kLast || ::gmtime_r(&time, &fields) == nullptr) {
        return {};
    }
    std::array<char, 96> text = {};
    std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02dZ", fields.tm_year + 1900,
                  fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
    return text.data();
}

std::string readableCode(uint32_t code)
{
    if (code == 0) {
        return {};
    }
    std::string characters;
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        const uint32_t character = (code >> shift) & 0xFFU;
        if (character < 0x20 || character > 0x7E) {
            std::array<char, 16> text = {};
            std::snprintf(text.data(), text.size(), "0x%08X", code);
            return text.data();
        }
        characters += static_cast<char>(character);
    }
    return characters;
}
