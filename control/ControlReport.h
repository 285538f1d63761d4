#pragma once

#include <string>

#include "ControlFigures.h"
#include "ControlReportCells.h"
#include "ControlStatus.h"

/** One page of HTML that shows the state of a volume, or two states side by side.
 *
 *  The page needs nothing else, neither from the network nor from beside it, and forbids itself to
 *  load anything. Whatever comes from the volume is escaped. Its size has a bound, whatever the
 *  volume: 2,000,000 bytes.
 */
class ControlReport {
public:
    /** A page of @p figures; @p files, which may be null, are the names behind the map. Both are
     * used until the page is made.
     */
    ControlReport(const ControlFigures& figures, const ControlReportCells* files);

    /** Shows @p figures beside, as the state before. */
    void setBaseline(const ControlFigures& figures, const ControlReportCells* files);

    [[nodiscard]] std::string page() const;

    /** Whether write() would take the file @p path: for asking before a run that it reports. */
    [[nodiscard]] static bool mayWrite(const std::string& path, ControlErrorSlot error);
    /** Writes the page to the file @p path, which holds nothing or an older report.
     *
     *  Anything else there is refused and stays as it is: it could be a volume.
     */
    [[nodiscard]] bool write(const std::string& path, ControlErrorSlot error) const;

private:
    struct Side {
        const ControlFigures* figures = nullptr;
        const ControlReportCells* files = nullptr;
    };

    [[nodiscard]] std::string _figures() const;
    [[nodiscard]] std::string _maps() const;
    [[nodiscard]] std::string _histograms() const;
    [[nodiscard]] std::string _files() const;
    /** @p part for each side, with captions when there are two. */
    template <typename Part>
    [[nodiscard]] std::string _sideBySide(Part part) const;

    Side _now;
    Side _before;
};
