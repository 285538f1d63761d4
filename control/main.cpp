#include <fcntl.h>
#include <unistd.h>

#include <clocale>
#include <optional>
#include <tuple>

#include "ControlCommandLine.h"
#include "ControlProgram.h"

namespace {

/** Keeps the numbers of the standard files that are closed from becoming those of other files,
 *  which would then get what is meant for people. Using them still fails.
 */
void holdStandardFiles()
{
    for (const int file : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(file, F_GETFD) < 0) {
            std::ignore = ::open("/dev/null", file == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    holdStandardFiles();
    // Characters and their widths; numbers keep the form that programs read.
    std::setlocale(LC_CTYPE, "");
    ControlOptions options;
    if (const std::optional<int> status = parseCommandLine(argc, argv, options)) {
        return *status;
    }
    return ControlProgram(options).run();
}
