#include <clocale>
#include <optional>

#include "ControlCommandLine.h"
#include "ControlProgram.h"

int main(int argc, char** argv)
{
    // Characters and their widths; numbers keep the form that programs read.
    std::setlocale(LC_CTYPE, "");
    ControlOptions options;
    if (const std::optional<int> status = parseCommandLine(argc, argv, options)) {
        return *status;
    }
    return ControlProgram(options).run();
}
