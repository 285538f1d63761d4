#pragma once

#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

inline constexpr const char* KLToolEventArgumentsType = "KLToolEventArgumentsType";
inline constexpr const char* KLToolEventCharacterType = "KLToolEventCharacterType";
inline constexpr const char* KLToolEventStringType = "KLToolEventStringType";

/** One unit of input; immutable after construction. */
class KLToolEvent : public std::enable_shared_from_this<KLToolEvent> {
public:
    /** Nothing for a line that is not valid UTF-8. */
    using Data = std::variant<std::monostate, std::string, std::vector<std::string>>;

    KLToolEvent(std::string type, Data data) : _type(std::move(type)), _data(std::move(data)) {}

    [[nodiscard]] const std::string& type() const { return _type; }
    [[nodiscard]] const Data& data() const { return _data; }

    /** The line or character; "" when the event carries none. */
    [[nodiscard]] std::string string() const;
    /** The command line's words; empty for other events. */
    [[nodiscard]] std::vector<std::string> arguments() const;

    /** Says that the event has been dealt with, so that the next may come. Any thread. */
    void complete();

private:
    std::string _type;
    Data _data;
};
