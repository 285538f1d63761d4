#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "HFSPlus/HFSPlusVolume.h"
#include "Tasks/TaskRun.h"
#include "base/ManualServices.h"
#include "support/OutputFields.h"

/** What the tests of the reporting commands share. */

using Lines = std::vector<std::string>;

/** The lines between the start and the done line of the command NAME, which are checked. */
[[nodiscard]] inline Lines framed(Lines lines, const std::string& name)
{
    if (lines.size() < 2 || lines.front() != name + ",START" || lines.back() != name + ",DONE") {
        ADD_FAILURE() << "not framed, " << lines.size() << " lines";
        return lines;
    }
    lines.pop_back();
    lines.erase(lines.begin());
    return lines;
}

inline constexpr size_t kNameField = 4;
inline constexpr size_t kFirstExtentField = 10;

/** The extents of a file's line, as they are printed. */
[[nodiscard]] inline std::string extentsOf(const std::string& line)
{
    std::string extents;
    const Lines fields = fieldsOf(line);
    for (size_t index = kFirstExtentField; index < fields.size(); ++index) {
        extents += "," + fields[index];
    }
    return extents;
}

/** The names of the files that are listed, in no order. */
[[nodiscard]] inline std::multiset<std::string> namesOf(const Lines& lines)
{
    std::multiset<std::string> names;
    for (const std::string& line : lines) {
        const Lines fields = fieldsOf(line);
        if (fields.size() >= kFirstExtentField && fields[1] == "FILE") {
            names.insert(fields[kNameField]);
        }
    }
    return names;
}

/** The line of file @p cnid, or nothing. */
[[nodiscard]] inline std::string lineOf(const Lines& lines, uint32_t cnid)
{
    for (const std::string& line : lines) {
        const Lines fields = fieldsOf(line);
        if (fields.size() >= kFirstExtentField && fields[3] == std::to_string(cnid)) {
            return line;
        }
    }
    return "";
}

/** Prints every progress value at once, on the task's thread. */
class ImmediateServices final : public VZDefragServices {
public:
    ImmediateServices() { setSharedServices(this); }
    ~ImmediateServices() override { setSharedServices(nullptr); }

    [[nodiscard]] double progressInterval() const override { return -1; }
    [[nodiscard]] double timeIntervalSinceReferenceDate() const override { return 1; }
    void performOnMainThread(std::function<void()> work) override
    {
        work();
        if (afterProgress != nullptr) {
            afterProgress();
        }
    }

    std::function<void()> afterProgress;
};

/** Whether the command @p line of class Task waits for the volume's gate before it looks at the
 *  volume, and prints nothing but its start until then. */
template <typename Task>
[[nodiscard]] bool waitsForGate(HFSPlusVolume& volume, const std::string& line)
{
    auto run = [&]() { return runReport<Task>(volume, line); };
    std::future<Lines> lines;
    {
        const KLClosedGate gate(volume.gate());
        lines = std::async(std::launch::async, run);
        while (volume.gate().waiterCount() == 0) {
            if (lines.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready) {
                return false;
            }
        }
    }
    return lines.get().size() >= 2;
}
