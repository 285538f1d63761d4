#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/** One call in progress. */
struct PlatformStackFrame {
    uintptr_t frameAddress = 0;
    uintptr_t returnAddress = 0;
    std::string symbol;    // the linker's name of the calling function; empty when unknown
    uintptr_t offset = 0;  // bytes from the symbol to the return address
};

/** The calling thread's stack, innermost frame first, at most @p limit frames. */
[[nodiscard]] std::vector<PlatformStackFrame> PlatformBacktrace(size_t limit);
