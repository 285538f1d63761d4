#pragma once

#include <string>
#include <vector>

#include "ControlStatus.h"

/** Where the rollback file of an image is kept. */
class ControlRollback {
public:
    /** The file for @p image below the folder for state of XDG's base directories; empty with an
     *  error when there is no such folder. Nothing is made yet.
     */
    [[nodiscard]] static std::string pathForImage(const std::string& image, ControlErrorSlot error);
    /** Whether the file at @p path holds what an interrupted run has left. */
    [[nodiscard]] static bool holdsRecords(const std::string& path);
    /** Whether it can be known what is at @p path; that nothing is there counts as known. */
    [[nodiscard]] static bool canLookAt(const std::string& path, ControlErrorSlot error);
    /** The files with records, besides that at @p path, in the folder of pathForImage(). */
    [[nodiscard]] static std::vector<std::string> othersWithRecords(const std::string& path);
    /** Makes the folders that @p path lies in, readable by their owner alone. */
    [[nodiscard]] static bool makeFolders(const std::string& path, ControlErrorSlot error);
};
