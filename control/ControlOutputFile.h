#pragma once

#include <string>
#include <string_view>

#include "ControlStatus.h"

/** Writes @p content to the file @p path, whole or not at all.
 *
 *  What is there already is replaced only when it is empty or begins with the same line, as an
 *  older version of the same does. Anything else is refused and stays as it is: a slip of the hand
 *  could name a volume. Pipes and devices that are no disks are written to.
 */
[[nodiscard]] bool writeOutputFile(const std::string& path, std::string_view content,
                                   ControlErrorSlot error);

/** Whether writeOutputFile() would replace what is at @p path with content that begins with the
 * line @p beginning, or find nothing there. For asking before work whose result it will take.
 */
[[nodiscard]] bool mayWriteOutputFile(const std::string& path, std::string_view beginning,
                                      ControlErrorSlot error);
