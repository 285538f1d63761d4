#pragma once

/** Lets the calling thread and every thread that it starts later use the disk only when idle.
 *
 *  Returns 0 or an errno value.
 */
[[nodiscard]] int PlatformUseIdleIOPriority();
