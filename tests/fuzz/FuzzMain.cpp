#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string_view>

#include "fuzz/FuzzRun.h"
#include "fuzz/FuzzScript.h"

// Entry points that libFuzzer calls; VZ_FUZZ_TARGET names the target.

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t most);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string wrong = runFuzzInput(FuzzTarget::VZ_FUZZ_TARGET, {data, size});
    if (!wrong.empty()) {
        std::cerr << "FOUND: " << wrong << std::endl;
        std::abort();
    }
    return 0;
}

/** Changes whole steps half of the time, and any bytes the other half. */
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t most,
                                          unsigned int seed)
{
    constexpr size_t kHead = FuzzScript::kHeadSize;
    constexpr size_t kStep = FuzzScript::kStepSize;
    std::minstd_rand random(seed);
    const auto below = [&](size_t limit) { return random() % limit; };
    const bool isPatch = size > 1 && (data[1] & FuzzScript::kPatchBit) != 0;
    if (most < kHead + kStep || isPatch || below(2) == 0) {
        return LLVMFuzzerMutate(data, size, most);
    }
    while (size < kHead) {
        data[size++] = static_cast<uint8_t>(below(256));
    }
    const size_t steps = (size - kHead) / kStep;
    uint8_t* const step = data + kHead + (steps == 0 ? 0 : below(steps) * kStep);
    uint8_t* const end = data + kHead + steps * kStep;
    const size_t kind = steps == 0 ? 0 : below(8);
    const bool hasRoom =
        steps < FuzzScript::kMostSteps && static_cast<size_t>(end - data) + kStep <= most;
    if (kind < 2 && hasRoom) {
        std::generate_n(end, kStep, [&] { return static_cast<uint8_t>(below(256)); });
        return static_cast<size_t>(end - data) + kStep;
    }
    if (kind == 2) {
        std::copy(step + kStep, end, step);
        return static_cast<size_t>(end - data) - kStep;
    }
    if (kind == 3 && hasRoom) {
        std::copy_n(step, kStep, end);  // the same damage once more, with another value
        LLVMFuzzerMutate(end + 4, 4, 4);
        return static_cast<size_t>(end - data) + kStep;
    }
    if (kind == 4) {
        data[below(kHead)] = static_cast<uint8_t>(below(256));
    } else {
        const size_t field = below(4);  // what, where, how, or the value
        constexpr size_t kOffsets[] = {0, 1, 4, 5, 8};
        for (size_t byte = kOffsets[field]; steps > 0 && byte < kOffsets[field + 1]; ++byte) {
            step[byte] = static_cast<uint8_t>(below(256));
        }
    }
    return size;
}
