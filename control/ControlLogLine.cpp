#include "ControlLogLine.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <optional>

#include "ControlSession.h"

namespace {

constexpr std::string_view kVolumeInfo = "Volume info         = ";
constexpr std::string_view kVolumeSize = "Volume size         = ";
constexpr std::string_view kRollback = "An interrupted run was rolled back ";
constexpr std::array<std::string_view, 3> kLoudLevels = {"PANIC: ", "ERROR: ", "WARNING: "};

/** The number behind @p label in @p text, and what follows it. */
std::optional<uint32_t> numberBehind(std::string_view text, std::string_view label,
                                     std::string_view& rest)
{
    const size_t position = text.find(label);
    if (position == std::string_view::npos) {
        return std::nullopt;
    }
    rest = text.substr(position + label.size());
    uint32_t number = 0;
    const auto result = std::from_chars(rest.data(), rest.data() + rest.size(), number);
    if (result.ec != std::errc()) {
        return std::nullopt;
    }
    rest.remove_prefix(static_cast<size_t>(result.ptr - rest.data()));
    return number;
}

/** A block size such as "4KiB": a power of two, so that it is always whole. */
uint32_t blockSizeIn(std::string_view text)
{
    std::string_view unit;
    const std::optional<uint32_t> number = numberBehind(text, "(block size = ", unit);
    if (!number) {
        return 0;
    }
    const unsigned shift = unit.starts_with("GiB,")   ? 30
                           : unit.starts_with("MiB,") ? 20
                           : unit.starts_with("KiB,") ? 10
                                                      : 0;
    const uint64_t size = uint64_t{*number} << shift;
    return (shift == 0 && !unit.starts_with("B,")) || size > UINT32_MAX
               ? 0
               : static_cast<uint32_t>(size);
}

}  // namespace

ControlLogLine ControlLogLine::parse(std::string_view line)
{
    ControlLogLine log;
    log._message = line;
    const size_t head = line.find("]: ");
    if (head == std::string_view::npos) {
        return log;
    }
    std::string_view message = line.substr(head + 3);
    log._isForPeople = false;
    for (const std::string_view level : kLoudLevels) {
        if (message.starts_with(level)) {
            message.remove_prefix(level.size());
            log._isForPeople = true;
        }
    }
    log._message = message;
    return log;
}

void ControlLogLine::tell(ControlVolumeFacts& facts) const
{
    const std::string_view text = _message;
    if (text.starts_with(kVolumeInfo)) {
        const std::string_view info = text.substr(kVolumeInfo.size());
        facts.format = info.substr(0, info.find(" (Version"));
        facts.isWritable = info.find(", read/write") != std::string_view::npos;
        facts.isJournaled = info.ends_with(", journaled");
    } else if (text.starts_with(kVolumeSize)) {
        std::string_view rest;
        facts.blockSize = blockSizeIn(text);
        facts.totalBlocks = numberBehind(text, ", total blocks = ", rest).value_or(0);
    }
}

bool ControlLogLine::tellsOfRollback() const
{
    return _message.starts_with(kRollback);
}
