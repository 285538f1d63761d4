#pragma once

#include <string>

/** A script that plays vzdefrag: a volume of 64 blocks, 24 of them free, with two files.
 *
 *  It answers QUIT and everything that a survey asks. What DEFRAG and COMPACT do is up to the test.
 *  The script's variable "image" is the image, and "tell LINE" writes to its log.
 */
class FakeTool {
public:
    struct Script {
        std::string opening = "echo READY";  // after the log lines about the volume
        std::string moving = "echo \"$word,START\"; echo \"$word,DONE\"";  // $word is the command
        std::string asked = "";  // before any command is answered
        std::string access = "read/write";
        std::string size = "64";  // blocks in the log
    };

    explicit FakeTool(const Script& script);
    FakeTool(const FakeTool&) = delete;
    FakeTool& operator=(const FakeTool&) = delete;
    ~FakeTool();

    [[nodiscard]] const std::string& path() const { return _path; }
    /** An image that is there; nothing is read from it. */
    [[nodiscard]] const std::string& image() const { return _image; }
    /** The file "$journal.go", which scripts may wait for. */
    [[nodiscard]] std::string goPath() const { return _journal + ".go"; }
    /** What the script has appended to the file "$journal". */
    [[nodiscard]] std::string journal() const;

private:
    std::string _path;
    std::string _image;
    std::string _journal;
};
