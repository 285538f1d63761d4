#pragma once

#include <memory>
#include <string>
#include <vector>

#include "KLKit/KLToolEvent.h"
#include "KLKit/KLToolTask.h"

/** Runs @p task on its thread to its end; the lines that it printed, without their newlines. */
[[nodiscard]] std::vector<std::string> runTask(KLToolTask& task);

/** Runs the command @p line as a task of class Task. */
template <typename Task, typename Volume>
[[nodiscard]] std::vector<std::string> runReport(Volume& volume, const std::string& line)
{
    const auto event = std::make_shared<KLToolEvent>(KLToolEventStringType, line);
    const auto task = std::make_shared<Task>(volume, event);
    return runTask(*task);
}
