#pragma once

#include <string>

#include "support/SparseSink.h"

/** Writes a volume into a file whose untouched parts stay holes. */
class SparseFileSink final : public SparseSink {
public:
    /** Creates the file at @p path, or empties it. */
    explicit SparseFileSink(const std::string& path);
    ~SparseFileSink() override;

    /** Whether the file could be opened. */
    [[nodiscard]] bool isOpen() const { return _descriptor >= 0; }

    [[nodiscard]] bool setSize(uint64_t size) override;
    [[nodiscard]] bool writeAt(const void* buffer, size_t nbyte, uint64_t offset) override;
    [[nodiscard]] bool readAt(void* buffer, size_t nbyte, uint64_t offset) override;

private:
    int _descriptor;
};
