#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "KLKit/KLToolApplication.h"
#include "VZDefragError.h"
#include "VZDefragServices.h"

class HFSPlusVolume;
class KLToolTask;
class VZDefragStringTable;
class VZDefragVolume;

/** The tool itself: the command line, the commands on standard input, and how it ends.
 *
 *  Everything runs on the main thread. What tasks ask for through VZDefragServices is fixed before
 *  the first of them starts.
 */
class VZDefragToolApplication : public KLToolApplication, public VZDefragServices {
public:
    VZDefragToolApplication(int argc, const char* const* argv);
    ~VZDefragToolApplication() override;

    /** Opens the device that the command line names; "READY" when commands may come. */
    void argumentsEvent(const std::shared_ptr<KLToolEvent>& event) override;
    /** Runs one command line. */
    void stringEvent(const std::shared_ptr<KLToolEvent>& event) override;

    /** Asks every task to stop; closes the volume and ends the loop when the last has ended. */
    void terminate() override;

    [[nodiscard]] double progressInterval() const override { return _progressInterval; }
    /** The translation in the strings file, or @p key itself. */
    [[nodiscard]] std::string localizedStringForKey(std::string_view key) const override;
    /** Loads the translations in a strings file; when that fails, those loaded before stay. */
    [[nodiscard]] bool setLocalizedStringsFile(const std::string& path);
    /** Ends the tool as "QUIT" does: nobody is left to report to. */
    void outputReaderDidGoAway() override;
    void performOnMainThread(std::function<void()> work) override;

private:
    struct Options;

    void _handleSignal(int signal);
    void _toolTaskDidTerminate(const std::shared_ptr<KLToolTask>& task);

    [[nodiscard]] bool _parseArguments(const std::vector<std::string>& arguments, Options& options,
                                       VZDefragErrorSlot error);
    [[nodiscard]] bool _parseOption(const std::vector<std::string>& arguments, size_t& index,
                                    Options& options, VZDefragErrorSlot error);
    [[nodiscard]] bool _setProgressInterval(const std::string& option, const std::string& value,
                                            VZDefragErrorSlot error);
    [[nodiscard]] bool _openDevice(const Options& options, VZDefragErrorSlot error);
    [[nodiscard]] bool _runCommand(const std::shared_ptr<KLToolEvent>& event);
    [[nodiscard]] HFSPlusVolume& _hfsPlusVolume() const;
    template <typename Task>
    void _startReportTask(const std::shared_ptr<KLToolEvent>& event);
    void _startMovingTask(const std::string& line, bool compact);
    void _startTask(const std::shared_ptr<KLToolTask>& task);

    double _progressInterval = 1.0;                              // seconds
    std::unique_ptr<VZDefragStringTable> _localizedStringTable;  // null until a file is loaded
    std::unique_ptr<VZDefragVolume> _volume;
    std::set<std::shared_ptr<KLToolTask>> _tasks;  // started, their end not yet announced
    bool _terminateRequestPending = false;
};
