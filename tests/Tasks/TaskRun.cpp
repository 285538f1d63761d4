#include "Tasks/TaskRun.h"

#include <future>
#include <sstream>

#include "KLKit/KLNotificationCenter.h"
#include "base/StandardOutputCapture.h"

std::vector<std::string> runTask(KLToolTask& task)
{
    std::promise<void> ended;
    KLNotificationCenter::defaultCenter().addObserver(
        KLToolTaskDidTerminateNotification,
        [&](const std::shared_ptr<KLToolTask>& /*object*/) { ended.set_value(); });
    std::string text;
    {
        const StandardOutputCapture capture;
        task.start();
        ended.get_future().wait();
        text = capture.text();
    }
    KLNotificationCenter::defaultCenter().removeAllObservers();
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}
