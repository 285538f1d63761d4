#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Platform/PlatformWritableFile.h"
#include "support/Recording.h"

/** The bytes of a file, or that there is none. */
using RecordedFileBytes = std::optional<std::vector<uint8_t>>;

/** A place for one file in memory, whose changes and barriers go into a recording.
 *
 *  Like a file of the system it has one opener at a time; who comes second gets EBUSY. Used by one
 *  thread at a time, and outlived by what its opener opens.
 */
class RecordingFile {
public:
    explicit RecordingFile(std::shared_ptr<Recording> recording, RecordedFileBytes bytes = {});
    ~RecordingFile();

    /** Opens the file; while it is open elsewhere it is busy. */
    [[nodiscard]] PlatformWritableFileOpener opener() const;

    /** What the file holds now. */
    [[nodiscard]] RecordedFileBytes bytes() const;

    /** Whether there is no file, or one of no bytes. */
    [[nodiscard]] bool isEmpty() const;

private:
    struct Store;
    class Handle;

    std::shared_ptr<Store> _store;
};
