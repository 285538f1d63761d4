#include "KLKit/KLDebug.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <ranges>
#include <string>

#include "Platform/PlatformBacktrace.h"
#include "Platform/PlatformSystem.h"

namespace {

constexpr const char* kLevelVariable = "KLDebugLevel";
constexpr size_t kMaximumFrames = 50;
constexpr int kHeaderIndent = 8;

struct LevelName {
    std::string_view name;
    KLDebugLevel level;
};
constexpr std::array<LevelName, 6> kLevelNames = {{
    {"panic", KLDebugLevel::kPanic},
    {"err", KLDebugLevel::kError},
    {"warn", KLDebugLevel::kWarning},
    {"info", KLDebugLevel::kInfo},
    {"debug", KLDebugLevel::kDebug},
    {"debug_more", KLDebugLevel::kDebugMore},
}};

std::string_view prefixOf(KLDebugLevel level)
{
    switch (level) {
        case KLDebugLevel::kPanic:
            return "PANIC: ";
        case KLDebugLevel::kError:
            return "ERROR: ";
        case KLDebugLevel::kWarning:
            return "WARNING: ";
        default:
            return "";
    }
}

char lowered(char character)
{
    const bool upper = character >= 'A' && character <= 'Z';
    return upper ? static_cast<char>(character - 'A' + 'a') : character;
}

KLDebugLevel levelFromEnvironment()
{
    const char* const value = std::getenv(kLevelVariable);
    const std::string_view name = value != nullptr ? value : "";
    const auto* const found = std::ranges::find_if(kLevelNames, [name](const LevelName& known) {
        return std::ranges::equal(name, known.name, {}, lowered);
    });
    return found != kLevelNames.end() ? found->level : KLDebugLevel::kWarning;
}

/** The log line that one thread is writing. */
class Line {
public:
    Line() = default;
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    ~Line() { end(); }

    void append(KLDebugLevel level, std::string_view text);
    /** Writes the line if one was begun. */
    void end();

private:
    void _begin(KLDebugLevel level);
    void _flush();

    bool _atStart = true;
    KLDebugLevel _level = KLDebugLevel::kWarning;
    std::string _bytes;
};

void Line::append(KLDebugLevel level, std::string_view text)
{
    if (!_atStart && level != _level) {
        _flush();
    }
    while (!text.empty()) {
        if (_atStart) {
            _begin(level);
        }
        const size_t newline = text.find('\n');
        _bytes.append(text.substr(0, newline));
        if (newline == std::string_view::npos) {
            return;
        }
        _flush();
        text.remove_prefix(newline + 1);
    }
}

void Line::end()
{
    if (!_atStart) {
        _flush();
    }
}

void Line::_begin(KLDebugLevel level)
{
    // Built once and never destroyed, since threads may log while the process exits.
    static const std::string& head =
        *new std::string(KLFormatString("%s[%u]: ", PlatformProgramName(), PlatformProcessID()));
    const PlatformLocalTime now = PlatformCurrentLocalTime();
    std::array<char, 32> time = {};
    std::ignore = std::strftime(time.data(), time.size(), "%F %T", &now.calendar);
    _bytes.append(
        KLFormatString("%s.%03u %s%s", time.data(), now.milliseconds, head, prefixOf(level)));
    _level = level;
    _atStart = false;
}

void Line::_flush()
{
    _bytes.push_back('\n');
    PlatformWriteStandardError(_bytes);
    _bytes.clear();
    _atStart = true;
}

Line& currentLine()
{
    thread_local Line line;
    return line;
}

}  // namespace

bool KLDebugLevelIsEnabled(KLDebugLevel level)
{
    static const KLDebugLevel currentLevel = levelFromEnvironment();
    return level <= currentLevel;
}

void KLDebugLogText(KLDebugLevel level, std::string_view text)
{
    if (KLDebugLevelIsEnabled(level)) {
        currentLine().append(level, text);
    }
}

void KLBacktrace()
{
    KLDebugLog(KLDebugLevel::kPanic, "   Frame     %*sCaller\n", kHeaderIndent, "");
    std::vector<PlatformStackFrame> frames = PlatformBacktrace(kMaximumFrames);
    std::ranges::reverse(frames);
    for (const PlatformStackFrame& frame : frames) {
        if (frame.symbol.empty()) {
            KLDebugLog(KLDebugLevel::kPanic, "  %016lX  %016lX  (unknown)\n", frame.frameAddress,
                       frame.returnAddress);
        } else {
            KLDebugLog(KLDebugLevel::kPanic, "  %016lX  %016lX  %s+%lX\n", frame.frameAddress,
                       frame.returnAddress, frame.symbol, frame.offset);
        }
    }
}

void KLPanicText(std::string_view text)
{
    KLDebugLogText(KLDebugLevel::kPanic, text);
    currentLine().end();
    KLBacktrace();
    std::abort();
}
