#pragma once

#include <concepts>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

/** One argument of a format: a number or a text. */
class KLFormatArgument {
public:
    using Value = std::variant<int64_t, uint64_t, double, std::string>;

    template <std::integral T>
    KLFormatArgument(T value)  // NOLINT(google-explicit-constructor)
        : _value(std::in_place_type<std::conditional_t<std::is_signed_v<T>, int64_t, uint64_t>>,
                 value)
    {
    }
    KLFormatArgument(double value) : _value(value) {}  // NOLINT(google-explicit-constructor)
    KLFormatArgument(std::string_view value)           // NOLINT(google-explicit-constructor)
        : _value(std::string(value))
    {
    }
    KLFormatArgument(const std::string& value) : _value(value) {}        // NOLINT
    KLFormatArgument(const char* value) : _value(std::string(value)) {}  // NOLINT

    [[nodiscard]] const Value& value() const { return _value; }

private:
    Value _value;
};

/** Fills a format with arguments, by position ("%2$lu") or in order ("%u").
 *
 *  Takes @ and s for texts, d i u x X o c p for numbers with any length modifier, f g e for
 *  doubles, flags, width and precision (also "*"). Formats may come from a translation and are
 *  only data: a placeholder without a fitting argument is copied out as it stands, an argument
 *  of another type is printed in its own natural form, widths and
 *  the whole text are bounded, %n does nothing.
 */
[[nodiscard]] std::string KLFormatArguments(std::string_view format,
                                            std::span<const KLFormatArgument> arguments);

template <typename... Arguments>
[[nodiscard]] std::string KLFormatString(std::string_view format, const Arguments&... arguments)
{
    if constexpr (sizeof...(Arguments) == 0) {
        return KLFormatArguments(format, {});
    } else {
        const KLFormatArgument list[] = {KLFormatArgument(arguments)...};
        return KLFormatArguments(format, list);
    }
}
