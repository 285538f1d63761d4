#pragma once

#include <map>
#include <string>
#include <vector>

#include "protocol/ToolProcess.h"

/** What a vzdefragctl printed and how it ended. */
struct ControlResult {
    int status = -1;
    std::string output;
    std::string messages;
};

/** The way in which the tests start vzdefragctl: with a tool, and a folder for state of its own. */
class ControlCommand {
public:
    ControlCommand();
    ControlCommand(const ControlCommand&) = delete;
    ControlCommand& operator=(const ControlCommand&) = delete;
    ~ControlCommand();

    /** The tool to start; the one of this build unless set. */
    void setTool(std::string path) { _tool = std::move(path); }
    void setVariable(const std::string& name, std::string value);

    /** How to start it with @p arguments. */
    [[nodiscard]] ToolProcess::Setup setup(const std::vector<std::string>& arguments) const;
    /** Runs it to its end. */
    [[nodiscard]] ControlResult run(const std::vector<std::string>& arguments) const;

    /** The folder that holds the rollback files. */
    [[nodiscard]] std::string stateFolder() const { return _folder + "/vzdefrag"; }
    /** The files in there, with their sizes. */
    [[nodiscard]] std::map<std::string, uintmax_t> stateFiles() const;

private:
    std::string _folder;
    std::string _tool;
    std::map<std::string, std::string> _environment;
};
