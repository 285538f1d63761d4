#pragma once

#include "ControlFigures.h"

/** Takes the files of a volume one by one, in the order in which SCAN lists them. */
class ControlFileSink {
public:
    virtual ~ControlFileSink() = default;
    virtual void addFile(const ControlFile& file) = 0;
};
