#pragma once

#include <string_view>

#include "KLKit/KLFormat.h"

/** Levels of the log on standard error; lower is more severe. */
enum class KLDebugLevel { kPanic = 1, kError, kWarning, kInfo, kDebug, kDebugMore };

/** Appends @p text to the calling thread's log line; each "\n" writes the line in one piece.
 *
 *  Dropped when @p level is above the level of the environment variable KLDebugLevel (warnings
 *  by default). Any thread may log.
 */
void KLDebugLogText(KLDebugLevel level, std::string_view text);

/** Whether a message of @p level would be written: costly texts are only made when it would. */
[[nodiscard]] bool KLDebugLevelIsEnabled(KLDebugLevel level);

template <typename... Arguments>
void KLDebugLog(KLDebugLevel level, std::string_view format, const Arguments&... arguments)
{
    if (KLDebugLevelIsEnabled(level)) {
        KLDebugLogText(level, KLFormatString(format, arguments...));
    }
}

/** Writes the calling thread's stack as panic lines, outermost frame first, 50 at most. */
void KLBacktrace();

/** Logs @p text at panic level with a backtrace and aborts the process. */
[[noreturn]] void KLPanicText(std::string_view text);

template <typename... Arguments>
[[noreturn]] void KLPanic(std::string_view format, const Arguments&... arguments)
{
    KLPanicText(KLFormatString(format, arguments...));
}
