#include <memory>

#include "KLKit/KLDebug.h"
#include "Platform/PlatformSystem.h"
#include "VZDefragToolApplication.h"

int main(int argc, char** argv)
{
    const int result = PlatformOpenStandardDescriptors();
    if (result != 0) {
        KLPanic("no standard input and output, error %d\n", result);
    }
    // Lives until the process ends: a task's thread may still be returning from its last lines.
    KLToolApplication& application =
        *std::make_unique<VZDefragToolApplication>(argc, argv).release();
    return application.run();
}
