#include "Tasks/DefragRun.h"

#include <cstdio>

#include "Tasks/TaskRun.h"

namespace {

/** A field of an output line as it was before it was made safe. */
std::string unescaped(const std::string& field)
{
    std::string text;
    for (size_t index = 0; index < field.size(); ++index) {
        if (field[index] == '\\' && index + 1 < field.size()) {
            ++index;
        }
        text += field[index];
    }
    return text;
}

}  // namespace

std::string DefragOutput::error() const
{
    const std::string head = command + ",ERROR,";
    for (const std::string& line : lines) {
        if (line.starts_with(head)) {
            return unescaped(line.substr(head.size()));
        }
    }
    return "";
}

bool DefragOutput::isWhole() const
{
    return lines.size() >= 2 && lines.front() == command + ",START" &&
           lines.back() == command + ",DONE";
}

std::vector<DefragMove> DefragOutput::moves() const
{
    std::vector<DefragMove> moves;
    const std::string format = command + ",PROGRESS,%d,%u,%u,%u,%u";
    for (const std::string& line : lines) {
        DefragMove move;
        if (std::sscanf(line.c_str(), format.c_str(), &move.percent, &move.source,
                        &move.destination, &move.count, &move.allocatedBlocks) == 5) {
            moves.push_back(move);
        }
    }
    return moves;
}

DefragOutput runDefrag(HFSPlusVolume& volume, uint64_t bufferSize, std::vector<std::string> words,
                       const std::function<void(HFSPlusDefragTask&)>& prepare)
{
    const std::string command = words.front();
    const auto task = std::make_shared<HFSPlusDefragTask>(volume, command == "COMPACT");
    task->setCopyBufferSize(bufferSize);
    task->setArguments(std::move(words));
    if (prepare != nullptr) {
        prepare(*task);
    }
    return {runTask(*task), command};
}
