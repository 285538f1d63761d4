#pragma once

#include <cstdint>
#include <memory>

#include "Platform/PlatformWritableFile.h"

/** Lets the requests to a file fail as those to a disk can be made to. */
class FaultyFile {
public:
    enum class Operation : uint8_t { kRead, kWrite, kSetSize, kSynchronize };

    explicit FaultyFile(PlatformWritableFileOpener opener);

    /** Opens the file behind this one. */
    [[nodiscard]] PlatformWritableFileOpener opener() const;

    /** The @p ordinal-th request of this kind fails with @p errorNumber, or with a short count
     *  where that is 0; so do those after it when it @p lasts. */
    void fail(Operation operation, uint64_t ordinal, int errorNumber, bool lasts);
    [[nodiscard]] bool isReached() const;

private:
    struct Plan;
    class Handle;

    PlatformWritableFileOpener _opener;
    std::shared_ptr<Plan> _plan;
};
