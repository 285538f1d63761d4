#include "Tasks/FaultyFile.h"

#include <array>
#include <utility>

struct FaultyFile::Plan {
    Operation operation = Operation::kRead;
    uint64_t ordinal = 0;  // 0: nothing fails
    int errorNumber = 0;
    bool lasts = false;
    bool isReached = false;
    std::array<uint64_t, 4> counts{};  // by operation

    [[nodiscard]] bool strikes(Operation requested)
    {
        const uint64_t count = ++counts[static_cast<size_t>(requested)];
        const bool isStruck = requested == operation && ordinal != 0 &&
                              (count == ordinal || (lasts && count > ordinal));
        isReached = isReached || isStruck;
        return isStruck;
    }
};

class FaultyFile::Handle final : public PlatformWritableFile {
public:
    Handle(std::unique_ptr<PlatformWritableFile> file, std::shared_ptr<Plan> plan)
        : _file(std::move(file)), _plan(std::move(plan))
    {
    }

    int64_t readAt(void* buffer, size_t nbyte, uint64_t offset) override
    {
        if (!_plan->strikes(Operation::kRead)) {
            return _file->readAt(buffer, nbyte, offset);
        }
        return _plan->errorNumber != 0 ? -_plan->errorNumber
                                       : _file->readAt(buffer, nbyte / 2, offset);
    }

    int64_t writeAt(const void* buffer, size_t nbyte, uint64_t offset) override
    {
        if (!_plan->strikes(Operation::kWrite)) {
            return _file->writeAt(buffer, nbyte, offset);
        }
        return _plan->errorNumber != 0 ? -_plan->errorNumber
                                       : _file->writeAt(buffer, nbyte / 2, offset);
    }

    int64_t size() override { return _file->size(); }

    int setSize(uint64_t nbyte) override
    {
        return _plan->strikes(Operation::kSetSize) ? _plan->errorNumber : _file->setSize(nbyte);
    }

    int synchronize() override
    {
        return _plan->strikes(Operation::kSynchronize) ? _plan->errorNumber : _file->synchronize();
    }

private:
    std::unique_ptr<PlatformWritableFile> _file;
    std::shared_ptr<Plan> _plan;
};

FaultyFile::FaultyFile(PlatformWritableFileOpener opener)
    : _opener(std::move(opener)), _plan(std::make_shared<Plan>())
{
}

PlatformWritableFileOpener FaultyFile::opener() const
{
    return [opener = _opener, plan = _plan](
               bool create, int& errorNumber) -> std::unique_ptr<PlatformWritableFile> {
        auto file = opener(create, errorNumber);
        return file == nullptr ? nullptr : std::make_unique<Handle>(std::move(file), plan);
    };
}

void FaultyFile::fail(Operation operation, uint64_t ordinal, int errorNumber, bool lasts)
{
    *_plan = {operation, ordinal, errorNumber, lasts, false, {}};
}

bool FaultyFile::isReached() const
{
    return _plan->isReached;
}
