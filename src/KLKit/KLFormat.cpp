#include "KLKit/KLFormat.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>

namespace {

// Wide enough for every line of the program, small enough that no format fills the memory.
constexpr size_t kMaximumFieldSize = 1024;
constexpr size_t kMaximumTextSize = 4 << 20;  // bytes; nothing is filled in beyond
constexpr size_t kMaximumDigits = 512;
constexpr size_t kDefaultFractionDigits = 6;
constexpr std::string_view kLengthModifiers = "hlqjztL";

/** One placeholder: "%", position, flags, width, precision, length and conversion. */
struct Placeholder {
    std::optional<size_t> position;  // counts from 1
    bool leftAligned = false;
    bool signShown = false;
    bool spaceForSign = false;
    bool alternate = false;
    bool zeroFilled = false;
    size_t width = 0;
    std::optional<size_t> precision;
    char conversion = 0;
};

/** A value as text, in the parts between which zeros may be filled in. */
struct Field {
    std::string prefix;  // sign and base
    std::string body;
    bool zerosAllowed = false;
};

std::string_view signOf(bool negative, const Placeholder& placeholder)
{
    if (negative) {
        return "-";
    }
    if (placeholder.signShown) {
        return "+";
    }
    return placeholder.spaceForSign ? " " : "";
}

void toUpper(std::string& text)
{
    std::ranges::transform(text, text.begin(), [](char character) {
        const bool lower = character >= 'a' && character <= 'z';
        return lower ? static_cast<char>(character - 'a' + 'A') : character;
    });
}

std::string digitsOf(uint64_t value, int base)
{
    std::array<char, 64> digits;
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value, base);
    return std::string(digits.data(), result.ptr);
}

Field fieldWithInteger(bool negative, uint64_t magnitude, const Placeholder& placeholder)
{
    Field field;
    const char conversion = placeholder.conversion;
    // A control character could end the line that the text goes into.
    if (conversion == 'c' && !negative && magnitude >= 0x20 && magnitude < 0x7F) {
        field.body = std::string(1, static_cast<char>(magnitude));
        return field;
    }
    if (conversion == 'x' || conversion == 'X' || conversion == 'o' || conversion == 'p') {
        const uint64_t bits = negative ? 0 - magnitude : magnitude;
        field.body = digitsOf(bits, conversion == 'o' ? 8 : 16);
        if (conversion == 'p' || (placeholder.alternate && bits != 0)) {
            field.prefix = conversion == 'o' ? "0" : "0x";
        }
        if (conversion == 'X') {
            toUpper(field.body);
            toUpper(field.prefix);
        }
    } else {
        field.prefix = signOf(negative, placeholder);
        field.body = digitsOf(magnitude, 10);
    }
    if (placeholder.precision) {
        const size_t digits = std::min(*placeholder.precision, kMaximumDigits);
        if (field.body.size() < digits) {
            field.body.insert(0, digits - field.body.size(), '0');
        }
    }
    field.zerosAllowed = !placeholder.precision;
    return field;
}

Field fieldWithDouble(double value, const Placeholder& placeholder)
{
    auto format = std::chars_format::general;
    const char conversion = placeholder.conversion;
    if (conversion == 'f' || conversion == 'F') {
        format = std::chars_format::fixed;
    } else if (conversion == 'e' || conversion == 'E') {
        format = std::chars_format::scientific;
    }
    const size_t digits =
        std::min(placeholder.precision.value_or(kDefaultFractionDigits), kMaximumDigits);
    // 309 digits before the point at most, then the point and the digits behind it.
    std::array<char, 2 * kMaximumFieldSize> text;
    const auto result = std::to_chars(text.data(), text.data() + text.size(), value, format,
                                      static_cast<int>(digits));
    Field field;
    field.body.assign(text.data(), result.ptr);
    const bool negative = field.body.starts_with('-');
    if (negative) {
        field.body.erase(0, 1);
    }
    field.prefix = signOf(negative, placeholder);
    field.zerosAllowed = field.body.find_first_of("in") == std::string::npos;
    if (conversion == 'F' || conversion == 'E' || conversion == 'G') {
        toUpper(field.body);
    }
    return field;
}

Field fieldWithText(const std::string& text, const Placeholder& placeholder)
{
    const bool isText = placeholder.conversion == '@' || placeholder.conversion == 's';
    Field field;
    field.body = text;
    if (isText && placeholder.precision && *placeholder.precision < text.size()) {
        size_t size = *placeholder.precision;
        // Never in the middle of a UTF-8 character.
        while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xC0) == 0x80) {
            --size;
        }
        field.body.resize(size);
    }
    return field;
}

/** The argument in the form asked for, or in its own where that does not fit. */
Field fieldWithArgument(const KLFormatArgument& argument, const Placeholder& placeholder)
{
    const auto& value = argument.value();
    if (const auto* text = std::get_if<std::string>(&value)) {
        return fieldWithText(*text, placeholder);
    }
    if (const auto* number = std::get_if<double>(&value)) {
        return fieldWithDouble(*number, placeholder);
    }
    if (const auto* number = std::get_if<int64_t>(&value)) {
        const auto bits = static_cast<uint64_t>(*number);
        return fieldWithInteger(*number < 0, *number < 0 ? 0 - bits : bits, placeholder);
    }
    return fieldWithInteger(false, std::get<uint64_t>(value), placeholder);
}

std::string padded(const Field& field, const Placeholder& placeholder)
{
    const size_t size = field.prefix.size() + field.body.size();
    const size_t width = std::min(placeholder.width, kMaximumFieldSize);
    const size_t missing = width > size ? width - size : 0;
    if (placeholder.leftAligned) {
        return field.prefix + field.body + std::string(missing, ' ');
    }
    if (placeholder.zeroFilled && field.zerosAllowed) {
        return field.prefix + std::string(missing, '0') + field.body;
    }
    return std::string(missing, ' ') + field.prefix + field.body;
}

/** Walks a format once, from the left, and builds the text. */
class Formatter {
public:
    Formatter(std::string_view format, std::span<const KLFormatArgument> arguments)
        : _format(format), _arguments(arguments)
    {
    }

    [[nodiscard]] std::string run();

private:
    [[nodiscard]] bool _parse(Placeholder& placeholder);
    void _parseFlags(Placeholder& placeholder);
    [[nodiscard]] bool _parseWidth(Placeholder& placeholder);
    [[nodiscard]] bool _parsePrecision(Placeholder& placeholder);
    [[nodiscard]] std::optional<size_t> _parseNumber();
    [[nodiscard]] std::optional<size_t> _parsePosition();
    [[nodiscard]] std::optional<int64_t> _starArgument();
    [[nodiscard]] const KLFormatArgument* _argumentAt(std::optional<size_t> position);
    [[nodiscard]] bool _append(const Placeholder& placeholder);
    [[nodiscard]] bool _skip(char character);

    std::string_view _format;
    std::span<const KLFormatArgument> _arguments;
    size_t _index = 0;         // in _format
    size_t _nextArgument = 0;  // the one that the next placeholder without a position takes
    std::string _text;
};

std::string Formatter::run()
{
    while (_index < _format.size() && _text.size() < kMaximumTextSize) {
        const size_t percent = std::min(_format.find('%', _index), _format.size());
        _text.append(_format.substr(_index, percent - _index));
        _index = percent;
        if (!_skip('%')) {
            break;
        }
        if (_skip('%')) {
            _text.push_back('%');
            continue;
        }
        const size_t argumentBefore = _nextArgument;
        Placeholder placeholder;
        if (!_parse(placeholder) || !_append(placeholder)) {
            // Not one that can be filled: it is text, and takes no argument from those after it.
            _nextArgument = argumentBefore;
            _text.append(_format.substr(percent, _index - percent));
        }
    }
    return std::move(_text);
}

bool Formatter::_skip(char character)
{
    if (_index == _format.size() || _format[_index] != character) {
        return false;
    }
    ++_index;
    return true;
}

bool Formatter::_parse(Placeholder& placeholder)
{
    placeholder.position = _parsePosition();
    _parseFlags(placeholder);
    if (!_parseWidth(placeholder) || !_parsePrecision(placeholder)) {
        return false;
    }
    while (_index < _format.size() && kLengthModifiers.find(_format[_index]) != std::string::npos) {
        ++_index;
    }
    if (_index == _format.size() || _format[_index] == '%') {
        return false;
    }
    placeholder.conversion = _format[_index];
    ++_index;
    return true;
}

void Formatter::_parseFlags(Placeholder& placeholder)
{
    while (_index < _format.size()) {
        switch (_format[_index]) {
            case '-':
                placeholder.leftAligned = true;
                break;
            case '+':
                placeholder.signShown = true;
                break;
            case ' ':
                placeholder.spaceForSign = true;
                break;
            case '#':
                placeholder.alternate = true;
                break;
            case '0':
                placeholder.zeroFilled = true;
                break;
            default:
                return;
        }
        ++_index;
    }
}

bool Formatter::_parseWidth(Placeholder& placeholder)
{
    if (!_skip('*')) {
        placeholder.width = _parseNumber().value_or(0);
        return true;
    }
    const std::optional<int64_t> width = _starArgument();
    if (!width) {
        return false;
    }
    const auto bits = static_cast<uint64_t>(*width);
    placeholder.leftAligned = placeholder.leftAligned || *width < 0;
    placeholder.width = *width < 0 ? 0 - bits : bits;
    return true;
}

bool Formatter::_parsePrecision(Placeholder& placeholder)
{
    if (!_skip('.')) {
        return true;
    }
    if (!_skip('*')) {
        placeholder.precision = _parseNumber().value_or(0);
        return true;
    }
    const std::optional<int64_t> precision = _starArgument();
    if (precision && *precision >= 0) {
        placeholder.precision = static_cast<size_t>(*precision);
    }
    return precision.has_value();
}

/** Decimal digits as a number; one too large to hold becomes the largest. */
std::optional<size_t> Formatter::_parseNumber()
{
    size_t number = 0;
    const char* const first = _format.data() + _index;
    const auto result = std::from_chars(first, _format.data() + _format.size(), number);
    if (result.ptr == first) {
        return std::nullopt;
    }
    _index += static_cast<size_t>(result.ptr - first);
    return result.ec == std::errc() ? number : SIZE_MAX;
}

/** Digits and "$"; digits without it are a width and stay unread. */
std::optional<size_t> Formatter::_parsePosition()
{
    const size_t before = _index;
    const std::optional<size_t> number = _parseNumber();
    if (number && _skip('$')) {
        return number;
    }
    _index = before;
    return std::nullopt;
}

/** The value of a "*", by position or the next one; nothing when it is no integer. */
std::optional<int64_t> Formatter::_starArgument()
{
    const KLFormatArgument* const argument = _argumentAt(_parsePosition());
    if (argument == nullptr) {
        return std::nullopt;
    }
    if (const auto* number = std::get_if<int64_t>(&argument->value())) {
        return *number;
    }
    if (const auto* number = std::get_if<uint64_t>(&argument->value())) {
        return static_cast<int64_t>(std::min<uint64_t>(*number, INT64_MAX));
    }
    return std::nullopt;
}

const KLFormatArgument* Formatter::_argumentAt(std::optional<size_t> position)
{
    const size_t index = position ? *position - 1 : _nextArgument++;
    return index < _arguments.size() ? &_arguments[index] : nullptr;
}

bool Formatter::_append(const Placeholder& placeholder)
{
    constexpr std::string_view kConversions = "@sdiuxXocpfFeEgG";
    if (placeholder.conversion == 'n') {
        return true;
    }
    if (kConversions.find(placeholder.conversion) == std::string_view::npos) {
        return false;
    }
    const KLFormatArgument* const argument = _argumentAt(placeholder.position);
    if (argument == nullptr) {
        return false;
    }
    _text.append(padded(fieldWithArgument(*argument, placeholder), placeholder));
    return true;
}

}  // namespace

std::string KLFormatArguments(std::string_view format, std::span<const KLFormatArgument> arguments)
{
    return Formatter(format, arguments).run();
}
