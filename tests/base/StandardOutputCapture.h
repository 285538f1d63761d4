#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <string>

#include "Platform/LinuxDescriptor.h"
#include "VZDefragOutput.h"

/** Sends standard output to memory for as long as it lives. */
class StandardOutputCapture {
public:
    StandardOutputCapture()
        : _saved(dup(STDOUT_FILENO)), _memory(memfd_create("standard output", MFD_CLOEXEC))
    {
        std::fflush(stdout);
        dup2(_memory.number(), STDOUT_FILENO);
    }
    StandardOutputCapture(const StandardOutputCapture&) = delete;
    StandardOutputCapture& operator=(const StandardOutputCapture&) = delete;
    ~StandardOutputCapture()
    {
        VZDefragFlushOutput();
        dup2(_saved.number(), STDOUT_FILENO);
    }

    /** What was flushed so far. */
    [[nodiscard]] std::string text() const
    {
        std::string text(static_cast<size_t>(lseek(_memory.number(), 0, SEEK_CUR)), '\0');
        const ssize_t count = pread(_memory.number(), text.data(), text.size(), 0);
        text.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return text;
    }

private:
    LinuxDescriptor _saved;
    LinuxDescriptor _memory;
};
