#include "Platform/PlatformBacktrace.h"

#include <dlfcn.h>
#include <unwind.h>

#include <bit>

namespace {

// Addresses that no caller has: errors stored as pointers, and the first page after the null page.
constexpr uintptr_t kHighestErrorAddress = 3;
constexpr uintptr_t kLowestErrorAddress = UINTPTR_MAX - 3;
constexpr uintptr_t kFirstPageAddress = 0x1000;

struct Walk {
    std::vector<PlatformStackFrame>* frames;
    size_t limit;
};

_Unwind_Reason_Code visitFrame(_Unwind_Context* context, void* argument)
{
    const Walk& walk = *static_cast<const Walk*>(argument);
    const uintptr_t address = _Unwind_GetIP(context);
    if (address == 0 || walk.frames->size() == walk.limit) {
        return _URC_END_OF_STACK;
    }
    PlatformStackFrame frame;
    frame.frameAddress = _Unwind_GetCFA(context);
    frame.returnAddress = address;
    walk.frames->push_back(frame);
    return _URC_NO_REASON;
}

void symbolize(PlatformStackFrame& frame)
{
    const uintptr_t address = frame.returnAddress;
    if (address <= kHighestErrorAddress || address >= kLowestErrorAddress ||
        address == kFirstPageAddress) {
        return;
    }
    Dl_info info = {};
    if (::dladdr(std::bit_cast<void*>(address), &info) != 0 && info.dli_sname != nullptr) {
        frame.symbol = info.dli_sname;
        frame.offset = address - std::bit_cast<uintptr_t>(info.dli_saddr);
    }
}

}  // namespace

std::vector<PlatformStackFrame> PlatformBacktrace(size_t limit)
{
    std::vector<PlatformStackFrame> frames;
    frames.reserve(limit);
    Walk walk{&frames, limit};
    _Unwind_Backtrace(visitFrame, &walk);
    for (PlatformStackFrame& frame : frames) {
        symbolize(frame);
    }
    return frames;
}
