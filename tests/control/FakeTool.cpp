#include "control/FakeTool.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "protocol/VolumeImage.h"

namespace {

// Block 0 to 7 are the volume's, 8 to 39 the files', the others free.
constexpr const char* kSurvey = R"(
        "BITMAP 1")
            echo "BITMAP,START"; echo "BITMAP,LENGTH,8"; echo "BITMAP,DATA,FFFFFFFFFF000000"
            echo "BITMAP,FIRSTUNUSEDBLOCK,40"; echo "BITMAP,LASTUSEDBLOCK,39"; echo "BITMAP,DONE" ;;
        FRAGINFO) echo "FRAGINFO,START"; echo "FRAGINFO,16,32,50"; echo "FRAGINFO,DONE" ;;
        "SCAN --frag-only")
            echo "SCAN,START"; echo "SCAN,FILE,2,17,b,1,2,3,00000000,00000000,24,8,32,8"
            echo "SCAN,DONE" ;;
        "SCAN -f")
            echo "SCAN,START"; echo "SCAN,FILE,2,16,/a,1,2,3,00000000,00000000,8,16"
            echo "SCAN,FILE,2,17,/b,1,2,3,00000000,00000000,24,8,32,8"; echo "SCAN,DONE" ;;
)";

}  // namespace

FakeTool::FakeTool(const Script& script)
    : _path(uniqueTemporaryPath("faketool")),
      _image(uniqueTemporaryPath("fakeimage")),
      _journal(uniqueTemporaryPath("journal"))
{
    {
        std::ofstream file(_path);
        file << "#!/bin/sh\n"
             << "journal=" << _journal << "\n"
             << "for image; do :; done\n"
             << "tell() { echo \"2026-01-01 00:00:00.000 vzdefrag[1]: $1\" >&2; }\n"
             << "tell 'Volume info         = HFS Plus (Version = 4), unmounted, " << script.access
             << "'\n"
             << "tell 'Volume size         = 256KiB (block size = 4KiB, total blocks = "
             << script.size << ", free blocks = 24)'\n"
             << script.opening << "\n"
             << "while read -r line; do\n"
             << "    word=${line%% *}\n"
             << "    echo \"$line\" >> \"$journal\"\n"
             << "    " << script.asked << "\n"
             << "    case $line in\n"
             << kSurvey << "        QUIT) exit 0 ;;\n"
             << "        DEFRAG* | COMPACT*) " << script.moving << " ;;\n"
             << "        *) echo \"ERROR,$word is not a recognized command.\" ;;\n"
             << "    esac\n"
             << "done\n"
             << "echo end >> \"$journal\"\n";
    }
    std::filesystem::permissions(_path, std::filesystem::perms::owner_all);
    std::ofstream(_image) << std::string(size_t{64} * 4096, 'x');
}

FakeTool::~FakeTool()
{
    std::filesystem::remove(_path);
    std::filesystem::remove(_image);
    std::filesystem::remove(_journal);
    std::filesystem::remove(goPath());
}

std::string FakeTool::journal() const
{
    std::ostringstream text;
    text << std::ifstream(_journal).rdbuf();
    return text.str();
}
