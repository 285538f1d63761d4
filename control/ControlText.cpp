#include "ControlText.h"

#include <langinfo.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <cwchar>

namespace {

constexpr char32_t kNoCharacter = 0xFFFFFFFF;

/** One character at the front of a text. */
struct Character {
    char32_t code = kNoCharacter;  // kNoCharacter: a byte that is no UTF-8
    size_t length = 1;             // bytes
};

Character firstCharacter(std::string_view text)
{
    const auto byte = [&](size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned lead = byte(0);
    if (lead < 0x80) {
        return {.code = lead, .length = 1};
    }
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) {
        return {};
    }
    char32_t code = lead & (0xFFU >> (length + 1));
    for (size_t index = 1; index < length; index++) {
        if ((byte(index) & 0xC0U) != 0x80) {
            return {};
        }
        code = code << 6U | (byte(index) & 0x3FU);
    }
    const char32_t least = length == 4 ? 0x10000 : length == 3 ? 0x800 : 0x80;
    if (code < least || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) {
        return {};
    }
    return {.code = code, .length = length};
}

/** Unicode keeps the last two codes of each plane free for ever, and XML takes two for errors. */
bool isNoCharacter(char32_t code)
{
    return (code & 0xFFFEU) == 0xFFFE;
}

/** Whether @p code could move the cursor, hide text or turn its direction. */
bool isTroublesome(char32_t code)
{
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0xAD || code == 0x61C ||
           (code >= 0x200B && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E) ||
           (code >= 0x2060 && code <= 0x206F) || code == 0xFEFF ||
           (code >= 0xFFF9 && code <= 0xFFFB) || (code >= 0xE0000 && code <= 0xE007F) ||
           isNoCharacter(code);
}

std::string formatted(const char* format, double value, const char* unit = "")
{
    std::array<char, 64> text = {};
    std::snprintf(text.data(), text.size(), format, value, unit);
    return text.data();
}

std::string hexadecimal(const char* format, unsigned value)
{
    std::array<char, 16> text = {};
    std::snprintf(text.data(), text.size(), format, value);
    return text.data();
}

size_t cellsOfCharacter(const Character& character)
{
    if (character.code == kNoCharacter) {
        return 1;
    }
    const int width = ::wcwidth(static_cast<wchar_t>(character.code));
    return width < 0 ? 1 : static_cast<size_t>(width);
}

/** How many bytes at the front of @p text fit in @p cells. */
size_t prefixOf(std::string_view text, size_t cells)
{
    size_t length = 0;
    size_t used = 0;
    while (length < text.size()) {
        const Character character = firstCharacter(text.substr(length));
        used += cellsOfCharacter(character);
        if (used > cells) {
            break;
        }
        length += character.length;
    }
    return length;
}

/** Where the last bytes of @p text begin that fit in @p cells. */
size_t suffixOf(std::string_view text, size_t cells)
{
    size_t start = 0;
    size_t left = cellsOf(text);
    while (start < text.size() && left > cells) {
        const Character character = firstCharacter(text.substr(start));
        left -= cellsOfCharacter(character);
        start += character.length;
    }
    // A mark that belongs to what was cut off goes as well.
    while (start < text.size()) {
        const Character character = firstCharacter(text.substr(start));
        if (cellsOfCharacter(character) != 0) {
            break;
        }
        start += character.length;
    }
    return start;
}

}  // namespace

ControlCharacters charactersOfLocale()
{
    return std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0 ? ControlCharacters::kUnicode
                                                             : ControlCharacters::kASCII;
}

std::string escapedForTerminal(std::string_view text, ControlCharacters characters)
{
    std::string escaped;
    while (!text.empty()) {
        const Character character = firstCharacter(text);
        const std::string_view bytes = text.substr(0, character.length);
        if (character.code == kNoCharacter || character.code < 0x20 || character.code == 0x7F) {
            escaped += hexadecimal("\\x%02X", static_cast<unsigned char>(text[0]));
        } else if (character.code == '\\') {
            escaped += "\\\\";
        } else if (isTroublesome(character.code) ||
                   (character.code >= 0x80 && characters == ControlCharacters::kASCII)) {
            escaped += hexadecimal("\\u{%04X}", static_cast<unsigned>(character.code));
        } else {
            escaped += bytes;
        }
        text.remove_prefix(character.length);
    }
    return escaped;
}

size_t cellsOf(std::string_view text)
{
    size_t cells = 0;
    while (!text.empty()) {
        const Character character = firstCharacter(text);
        cells += cellsOfCharacter(character);
        text.remove_prefix(character.length);
    }
    return cells;
}

std::string fitted(std::string_view text, size_t cells, ControlCharacters characters)
{
    if (cellsOf(text) <= cells) {
        return std::string(text);
    }
    const std::string_view gap = characters == ControlCharacters::kUnicode ? "…" : "...";
    const size_t gapCells = characters == ControlCharacters::kUnicode ? 1 : 3;
    if (cells <= gapCells) {
        return std::string(text.substr(0, prefixOf(text, cells)));
    }
    const size_t kept = cells - gapCells;
    std::string result(text.substr(0, prefixOf(text, kept / 2)));
    result += gap;
    result += text.substr(suffixOf(text, kept - kept / 2));
    return result;
}

std::string grouped(uint64_t number)
{
    std::string digits = std::to_string(number);
    for (size_t position = digits.size(); position > 3; position -= 3) {
        digits.insert(position - 3, 1, ',');
    }
    return digits;
}

std::string readableSize(uint64_t bytes)
{
    static constexpr std::array kUnits = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) {
        return std::to_string(bytes) + " B";
    }
    auto size = static_cast<double>(bytes);
    size_t unit = 0;
    // What would be shown as four digits gets the next unit.
    while (size >= 999.5 && unit + 1 < kUnits.size()) {
        size /= 1024;
        unit++;
    }
    const char* const format = size < 9.995 ? "%.2f %s" : size < 99.95 ? "%.1f %s" : "%.0f %s";
    return formatted(format, size, kUnits.at(unit));
}

std::string readableDuration(double seconds)
{
    if (!(seconds >= 0) || seconds > 3600.0 * 24 * 365 * 100) {
        return "?";
    }
    const auto whole = static_cast<uint64_t>(seconds);
    std::array<char, 64> text = {};
    if (whole < 3600) {
        std::snprintf(text.data(), text.size(), "%u:%02u", static_cast<unsigned>(whole / 60),
                      static_cast<unsigned>(whole % 60));
    } else {
        std::snprintf(text.data(), text.size(), "%llu:%02u:%02u",
                      static_cast<unsigned long long>(whole / 3600),
                      static_cast<unsigned>(whole / 60 % 60), static_cast<unsigned>(whole % 60));
    }
    return text.data();
}

std::string readablePercent(uint64_t part, uint64_t whole)
{
    const double percent =
        whole == 0 ? 0 : 100 * static_cast<double>(part) / static_cast<double>(whole);
    return formatted("%.1f", percent);
}
