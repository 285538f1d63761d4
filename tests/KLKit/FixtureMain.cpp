#include <cstdio>
#include <string>

#include "KLKit/Fixture.h"

void printLine(const std::string& line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    int status = 0;
    if (runApplicationMode(mode, argc, argv, status) || runTaskMode(mode, argc, argv, status) ||
        runLogMode(mode, argc, argv, status)) {
        return status;
    }
    std::fprintf(stderr, "unknown mode %s\n", mode.c_str());
    return 2;
}
