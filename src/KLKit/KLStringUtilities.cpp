#include "KLKit/KLStringUtilities.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "KLKit/KLFormat.h"

namespace {

constexpr uint64_t kKiB = uint64_t{1} << 10;
constexpr uint64_t kMiB = uint64_t{1} << 20;
constexpr uint64_t kGiB = uint64_t{1} << 30;

std::string_view trimmed(std::string_view text, std::string_view set)
{
    const size_t first = text.find_first_not_of(set);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(set) - first + 1);
}

size_t continuationCount(unsigned char lead)
{
    if (lead < 0xC0) {
        return 0;
    }
    if (lead < 0xE0) {
        return 1;
    }
    if (lead < 0xF0) {
        return 2;
    }
    return lead < 0xF8 ? 3 : 4;
}

/** Lowest and highest second byte that @p lead allows: shorter forms of a code exclude longer. */
bool allowsSecondByte(unsigned char lead, unsigned char second)
{
    switch (lead) {
        case 0xE0:
            return second >= 0xA0;
        case 0xF0:
            return second >= 0x90;
        case 0xF4:
            return second <= 0x8F;
        default:
            return true;
    }
}

}  // namespace

std::string firstComponentSeparatedByCharactersInSet(std::string_view text, std::string_view set)
{
    const std::string_view rest = trimmed(text, set);
    return std::string(rest.substr(0, rest.find_first_of(set)));
}

std::vector<std::string> trimmedComponentsSeparatedByCharactersInSet(std::string_view text,
                                                                     std::string_view set)
{
    std::vector<std::string> components;
    std::string_view rest = trimmed(text, set);
    while (!rest.empty()) {
        const size_t separator = rest.find_first_of(set);
        components.emplace_back(rest.substr(0, separator));
        rest = separator < rest.size() ? trimmed(rest.substr(separator), set) : std::string_view();
    }
    return components;
}

std::optional<int64_t> integerAtStart(std::string_view text)
{
    constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
    text.remove_prefix(std::min(text.find_first_not_of(kWhiteSpace), text.size()));
    const bool isNegative = text.starts_with('-');
    if (text.starts_with('+') && !text.starts_with("+-")) {
        text.remove_prefix(1);
    }
    int64_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec == std::errc::result_out_of_range) {
        return isNegative ? std::numeric_limits<int64_t>::min()
                          : std::numeric_limits<int64_t>::max();
    }
    return result.ec == std::errc() ? std::optional(number) : std::nullopt;
}

std::string stringWithPrettySize(uint64_t size)
{
    const char* name = "GiB";
    uint64_t unit = kGiB;
    if (size < kKiB) {
        name = "B";
        unit = 1;
    } else if (size < kMiB) {
        name = "KiB";
        unit = kKiB;
    } else if (size < kGiB) {
        name = "MiB";
        unit = kMiB;
    }
    const uint64_t whole = size / unit;
    uint64_t fraction = (size % unit) * 1000 / unit;
    if (fraction == 0) {
        return KLFormatString("%2$llu%1$s", name, whole);
    }
    if (fraction % 100 == 0) {
        fraction /= 100;
    } else if (fraction % 10 == 0) {
        fraction /= 10;
    }
    return KLFormatString("%2$llu.%3$llu%1$s", name, whole, fraction);
}

size_t sizeOfUTF8CharacterWithLeadByte(char lead)
{
    return 1 + continuationCount(static_cast<unsigned char>(lead));
}

bool isWellFormedUTF8Character(std::string_view bytes)
{
    const auto lead = static_cast<unsigned char>(bytes.empty() ? '\xFF' : bytes.front());
    const bool badLead = (lead >= 0x80 && lead <= 0xC1) || lead >= 0xF5;
    if (badLead || bytes.size() != sizeOfUTF8CharacterWithLeadByte(bytes.front())) {
        return false;
    }
    for (const char byte : bytes.substr(1)) {
        if ((static_cast<unsigned char>(byte) & 0xC0) != 0x80) {
            return false;
        }
    }
    return bytes.size() == 1 || allowsSecondByte(lead, static_cast<unsigned char>(bytes[1]));
}

bool isValidUTF8(std::string_view text)
{
    while (!text.empty()) {
        const std::string_view character =
            text.substr(0, sizeOfUTF8CharacterWithLeadByte(text.front()));
        const bool surrogate = character.size() == 3 && character[0] == '\xED' &&
                               static_cast<unsigned char>(character[1]) >= 0xA0;
        if (surrogate || !isWellFormedUTF8Character(character)) {
            return false;
        }
        text.remove_prefix(character.size());
    }
    return true;
}
