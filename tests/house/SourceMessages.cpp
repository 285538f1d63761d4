#include "house/SourceMessages.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <string_view>

namespace {

/** A function that fails with the format it is given. */
struct Failing {
    std::string name;
    size_t formatIndex = 0;               // of the format among its arguments
    std::optional<size_t> argumentCount;  // of the format; nothing: all that follow it

    auto operator<=>(const Failing&) const = default;
};

/** A call in a source: its arguments as they are written. */
struct Call {
    size_t position = 0;
    std::vector<std::string> arguments;
};

bool isWordCharacter(char character)
{
    return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_';
}

/** The index behind the literal that begins at @p index with a quotation mark. */
size_t endOfLiteral(const std::string& text, size_t index)
{
    const char quote = text[index];
    for (++index; index < text.size() && text[index] != quote; ++index) {
        index += text[index] == '\\' ? 1 : 0;
    }
    return std::min(index + 1, text.size());
}

/** Whether the quotation mark at @p index begins a literal: the one in 1'000 does not. */
bool beginsLiteral(const std::string& text, size_t index)
{
    return text[index] == '"' ||
           (text[index] == '\'' && (index == 0 || !isWordCharacter(text[index - 1])));
}

std::string withoutComments(const std::string& text)
{
    std::string code;
    for (size_t index = 0; index < text.size();) {
        if (text.compare(index, 2, "//") == 0) {
            index = std::min(text.find('\n', index), text.size());
        } else if (text.compare(index, 2, "/*") == 0) {
            index = std::min(text.find("*/", index), text.size() - 2) + 2;
        } else {
            const size_t end = beginsLiteral(text, index) ? endOfLiteral(text, index) : index + 1;
            code += text.substr(index, end - index);
            index = end;
        }
    }
    return code;
}

std::string trimmed(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t\n");
    return first == std::string::npos
               ? std::string()
               : text.substr(first, text.find_last_not_of(" \t\n") - first + 1);
}

/** The arguments of the call whose "(" is at @p index. */
std::vector<std::string> argumentsAt(const std::string& code, size_t index)
{
    std::vector<std::string> arguments(1);
    int depth = 0;
    while (index < code.size()) {
        const char character = code[index];
        const size_t end = beginsLiteral(code, index) ? endOfLiteral(code, index) : index + 1;
        depth += std::string_view("([{").find(character) != std::string_view::npos ? 1 : 0;
        depth -= std::string_view(")]}").find(character) != std::string_view::npos ? 1 : 0;
        if (depth == 0) {
            break;
        }
        if (depth == 1 && character == ',') {
            arguments.emplace_back();
        } else if (depth > 1 || character != '(') {
            arguments.back() += code.substr(index, end - index);
        }
        index = end;
    }
    std::ranges::transform(arguments, arguments.begin(), trimmed);
    if (arguments.back().empty()) {
        arguments.pop_back();
    }
    return arguments;
}

/** Calls of @p name in @p code, its declarations left out. */
std::vector<Call> callsOf(const std::string& name, const std::string& code)
{
    std::vector<Call> calls;
    for (size_t index = code.find(name); index != std::string::npos;
         index = code.find(name, index + 1)) {
        const size_t end = index + name.size();
        if ((index > 0 && isWordCharacter(code[index - 1])) || end == code.size() ||
            code[end] != '(') {
            continue;
        }
        Call call{.position = index, .arguments = argumentsAt(code, end)};
        const bool declared = std::ranges::any_of(call.arguments, [](const std::string& argument) {
            return argument.starts_with("std::string_view ") ||
                   argument.starts_with("std::string ");
        });
        if (!declared) {
            calls.push_back(std::move(call));
        }
    }
    return calls;
}

/** The content of one or more string literals side by side; nothing when it is something else. */
std::optional<std::string> literalIn(const std::string& expression)
{
    std::string content;
    for (size_t index = 0; index < expression.size();) {
        if (std::isspace(static_cast<unsigned char>(expression[index])) != 0) {
            ++index;
        } else if (expression[index] != '"') {
            return std::nullopt;
        } else {
            const size_t end = endOfLiteral(expression, index);
            content += expression.substr(index + 1, end - index - 2);
            index = end;
        }
    }
    return expression.empty() ? std::nullopt : std::optional(content);
}

bool isName(const std::string& expression)
{
    return !expression.empty() && std::ranges::all_of(expression, isWordCharacter);
}

/** The formats that @p expression may be in @p code; empty when that is not to be seen. */
std::set<std::string> formatsOf(const std::string& expression, const std::string& code)
{
    if (const auto literal = literalIn(expression)) {
        return {*literal};
    }
    std::smatch match;
    static const std::regex choice(R"(^[^?"]*\?\s*(\w+|"[^"]*")\s*:\s*(\w+|"[^"]*")$)");
    if (std::regex_match(expression, match, choice)) {
        std::set<std::string> formats = formatsOf(match[1], code);
        formats.merge(formatsOf(match[2], code));
        return formats;
    }
    std::set<std::string> formats;
    if (isName(expression)) {
        const std::regex definition("std::string_view " + expression + R"(\s*=\s*([^;]*);)");
        for (auto found = std::sregex_iterator(code.begin(), code.end(), definition);
             found != std::sregex_iterator(); ++found) {
            formats.merge(formatsOf(trimmed((*found)[1]), code));
        }
    }
    return formats;
}

/** The function around @p call, when the format is one of that function's parameters. */
std::optional<Failing> functionPassingOn(const std::string& parameter, const Call& call,
                                         size_t argumentCount, const std::string& code)
{
    const size_t declaration = code.rfind("std::string_view " + parameter, call.position);
    if (declaration == std::string::npos) {
        return std::nullopt;
    }
    const size_t parenthesis = code.rfind('(', declaration);
    size_t start = parenthesis;
    while (start > 0 && isWordCharacter(code[start - 1])) {
        --start;
    }
    const std::vector<std::string> parameters = argumentsAt(code, parenthesis);
    const auto found = std::ranges::find(parameters, "std::string_view " + parameter);
    if (found == parameters.end()) {
        return std::nullopt;
    }
    Failing failing{.name = code.substr(start, parenthesis - start),
                    .formatIndex = static_cast<size_t>(found - parameters.begin()),
                    .argumentCount = argumentCount};
    if (call.arguments.back().ends_with("...")) {
        failing.argumentCount.reset();
    }
    return failing;
}

/** The sources without their comments, by path. */
std::map<std::string, std::string> codeOf(const SourceTree& tree)
{
    std::map<std::string, std::string> code;
    for (const auto& [path, file] : tree) {
        code[path] = withoutComments(file.text);
    }
    return code;
}

/** Collects what @p first and all functions that pass formats on to it are called with. */
std::vector<MessageUse> messagesOf(const Failing& first, const SourceTree& tree)
{
    const std::map<std::string, std::string> sources = codeOf(tree);
    std::vector<MessageUse> uses;
    std::vector<Failing> pending = {first};
    std::set<Failing> known = {first};
    while (!pending.empty()) {
        const Failing failing = pending.back();
        pending.pop_back();
        for (const auto& [path, code] : sources) {
            for (const Call& call : callsOf(failing.name, code)) {
                const size_t index = failing.formatIndex;
                if (index >= call.arguments.size()) {
                    continue;
                }
                const std::string& expression = call.arguments[index];
                const size_t count =
                    failing.argumentCount.value_or(call.arguments.size() - index - 1);
                const std::set<std::string> formats = formatsOf(expression, code);
                for (const std::string& format : formats) {
                    uses.push_back({path, format, expression, count});
                }
                if (!formats.empty()) {
                    continue;
                }
                const auto outer = isName(expression)
                                       ? functionPassingOn(expression, call, count, code)
                                       : std::nullopt;
                if (!outer) {
                    uses.push_back({path, "", expression, count});
                } else if (outer->name != failing.name && known.insert(*outer).second) {
                    pending.push_back(*outer);
                }
            }
        }
    }
    return uses;
}

/** How many arguments @p format takes; nothing when it mixes the two kinds of placeholders or
 *  leaves an argument out. */
std::optional<size_t> argumentsTakenBy(const std::string& format)
{
    static const std::regex placeholder(
        R"(%(?:%|(\d+)\$)?[-+ #0]*\d*(?:\.\d+)?[hlqjzt]*[@sduxXc]?)");
    std::set<size_t> positions;
    size_t plain = 0;
    for (auto found = std::sregex_iterator(format.begin(), format.end(), placeholder);
         found != std::sregex_iterator(); ++found) {
        if ((*found)[1].matched) {
            positions.insert(std::stoul((*found)[1]));
        } else if (!found->str().starts_with("%%")) {
            ++plain;
        }
    }
    if (positions.empty()) {
        return plain;
    }
    const bool complete = *positions.begin() == 1 && *positions.rbegin() == positions.size();
    return complete && plain == 0 ? std::optional(positions.size()) : std::nullopt;
}

}  // namespace

std::vector<MessageUse> localizedMessagesIn(const SourceTree& tree)
{
    return messagesOf({.name = "VZDefragFail", .formatIndex = 1, .argumentCount = {}}, tree);
}

std::vector<MessageUse> untranslatedMessagesIn(const SourceTree& tree)
{
    return messagesOf({.name = "failUntranslated", .formatIndex = 1, .argumentCount = {}}, tree);
}

std::vector<std::string> messagesThatBypassTheStringsFile(const SourceTree& tree)
{
    // Where errors are made, and where their lines are printed; everybody else calls these.
    const std::string application = "VZDefragToolApplication.cpp";
    const std::set<std::string> makers = {"VZDefragError.cpp", "VZDefragError.h", application};
    const std::set<std::string> printers = {"VZDefragTask.cpp", application};
    std::vector<std::string> faults;
    for (const auto& [path, code] : codeOf(tree)) {
        for (const std::string name : {"errorWithFormat", "errorWithDescription"}) {
            if (!makers.contains(path) && !callsOf(name, code).empty()) {
                faults.push_back(path + " calls " + name);
            }
        }
        if (!printers.contains(path) && code.find("ERROR,") != std::string::npos) {
            faults.push_back(path + " prints an error line");
        }
        if (path == application &&
            callsOf("errorWithFormat", code).size() + callsOf("errorWithDescription", code).size() >
                1) {
            faults.push_back(path + " makes errors in more than one place");
        }
    }
    return faults;
}

std::vector<std::string> messagesOfUnknownText(const SourceTree& tree)
{
    std::vector<std::string> faults;
    for (const MessageUse& use : localizedMessagesIn(tree)) {
        if (use.text.empty()) {
            faults.push_back(use.path + " fails with " + use.expression);
        }
    }
    return faults;
}

std::vector<std::string> messagesWhosePlaceholdersDoNotFit(const SourceTree& tree)
{
    std::vector<std::string> faults;
    std::vector<MessageUse> uses = localizedMessagesIn(tree);
    std::ranges::copy(untranslatedMessagesIn(tree), std::back_inserter(uses));
    for (const MessageUse& use : uses) {
        if (argumentsTakenBy(use.text) != use.argumentCount) {
            faults.push_back(use.path + " fills \"" + use.text + "\" with " +
                             std::to_string(use.argumentCount));
        }
    }
    return faults;
}
