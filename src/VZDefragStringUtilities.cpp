#include "VZDefragStringUtilities.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace {

constexpr char32_t kReplacementCharacter = 0xFFFD;

bool isHighSurrogate(uint32_t unit)
{
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool isLowSurrogate(uint32_t unit)
{
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

void appendCodePoint(std::string& text, char32_t code)
{
    const auto append = [&text](char32_t byte) { text.push_back(static_cast<char>(byte)); };
    if (code < 0x80) {
        append(code);
    } else if (code < 0x800) {
        append(0xC0 | (code >> 6));
        append(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        append(0xE0 | (code >> 12));
        append(0x80 | ((code >> 6) & 0x3F));
        append(0x80 | (code & 0x3F));
    } else {
        append(0xF0 | (code >> 18));
        append(0x80 | ((code >> 12) & 0x3F));
        append(0x80 | ((code >> 6) & 0x3F));
        append(0x80 | (code & 0x3F));
    }
}

/** How a UTF-8 sequence goes on after its lead byte. */
struct SequenceShape {
    size_t continuations;  // 0: not a lead byte
    char32_t bits;         // of the lead byte
    char32_t least;        // smaller codes are overlong
};

SequenceShape shapeOfLeadByte(uint8_t lead)
{
    if (lead >= 0xC2 && lead <= 0xDF) {
        return {1, static_cast<char32_t>(lead & 0x1F), 0x80};
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        return {2, static_cast<char32_t>(lead & 0x0F), 0x800};
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        return {3, static_cast<char32_t>(lead & 0x07), 0x10000};
    }
    return {0, 0, 0};
}

/** Takes one code point off the front of @p text; false when none is well formed there. */
bool takeCodePoint(std::string_view& text, char32_t& code)
{
    const auto lead = static_cast<uint8_t>(text.front());
    text.remove_prefix(1);
    if (lead < 0x80) {
        code = lead;
        return true;
    }
    const SequenceShape shape = shapeOfLeadByte(lead);
    if (shape.continuations == 0 || text.size() < shape.continuations) {
        return false;
    }
    code = shape.bits;
    for (size_t index = 0; index < shape.continuations; ++index) {
        const auto byte = static_cast<uint8_t>(text[index]);
        if ((byte & 0xC0) != 0x80) {
            return false;
        }
        code = (code << 6) | (byte & 0x3F);
    }
    text.remove_prefix(shape.continuations);
    return code >= shape.least && code <= 0x10FFFF && !(code >= 0xD800 && code <= 0xDFFF);
}

}  // namespace

std::string outputSafeString(std::string_view text)
{
    std::string safe;
    safe.reserve(text.size());
    for (const char character : text) {
        switch (character) {
            case '\\':
                safe += "\\\\";
                break;
            case ',':
                safe += "\\,";
                break;
            case '\0':
                safe += "\\xC0\\x80";
                break;
            default:
                safe += character;
                break;
        }
    }
    return safe;
}

std::string stringWithUnicodeUnits(std::span<const uint16_t> units)
{
    std::string text;
    text.reserve(units.size());
    for (size_t index = 0; index < units.size(); ++index) {
        const char32_t unit = units[index];
        if (isHighSurrogate(unit) && index + 1 < units.size() && isLowSurrogate(units[index + 1])) {
            ++index;
            appendCodePoint(text, 0x10000 + ((unit - 0xD800) << 10) + (units[index] - 0xDC00U));
        } else if (isHighSurrogate(unit) || isLowSurrogate(unit)) {
            appendCodePoint(text, kReplacementCharacter);
        } else {
            appendCodePoint(text, unit);
        }
    }
    return text;
}

std::string stringWithHFSUniStr255(std::span<const uint8_t> bytes)
{
    const auto unitAt = [bytes](size_t index) {
        return static_cast<uint16_t>((bytes[2 * index] << 8) | bytes[2 * index + 1]);
    };
    if (bytes.size() < 2) {
        return {};
    }
    // The length comes first, so unit i of the name is number i + 1 here.
    const size_t length = std::min<size_t>(unitAt(0), bytes.size() / 2 - 1);
    std::vector<uint16_t> units(length);
    for (size_t index = 0; index < length; ++index) {
        const uint16_t unit = unitAt(index + 1);
        // On disk a name may hold the separator of paths; in a path it shows as a colon.
        units[index] = unit == u'/' ? u':' : unit;
    }
    return stringWithUnicodeUnits(units);
}

bool unicodeUnitsOfString(std::string_view text, std::u16string& units)
{
    units.clear();
    while (!text.empty()) {
        char32_t code = 0;
        if (!takeCodePoint(text, code)) {
            return false;
        }
        if (code < 0x10000) {
            units.push_back(static_cast<char16_t>(code));
        } else {
            units.push_back(static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10)));
            units.push_back(static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF)));
        }
    }
    return true;
}
