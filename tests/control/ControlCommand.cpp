#include "control/ControlCommand.h"

#include <filesystem>
#include <utility>

#include "protocol/VolumeImage.h"

ControlCommand::ControlCommand() : _folder(uniqueTemporaryPath("state")), _tool(VZDEFRAG_PROGRAM)
{
    _environment["XDG_STATE_HOME"] = _folder;
    _environment["LC_ALL"] = "C.UTF-8";
}

ControlCommand::~ControlCommand()
{
    std::filesystem::remove_all(_folder);
}

void ControlCommand::setVariable(const std::string& name, std::string value)
{
    _environment[name] = std::move(value);
}

ToolProcess::Setup ControlCommand::setup(const std::vector<std::string>& arguments) const
{
    ToolProcess::Setup setup{.program = VZDEFRAGCTL_PROGRAM, .environment = _environment};
    setup.arguments = arguments;
    if (arguments.size() > 1) {
        setup.arguments.insert(setup.arguments.end(), {"--tool", _tool});
    }
    return setup;
}

ControlResult ControlCommand::run(const std::vector<std::string>& arguments) const
{
    ToolProcess process(setup(arguments));
    process.closeInput();
    ControlResult result;
    result.output = process.readToEnd();
    result.messages = process.readErrorsToEnd();
    result.status = process.wait();
    return result;
}

std::map<std::string, uintmax_t> ControlCommand::stateFiles() const
{
    std::map<std::string, uintmax_t> files;
    std::error_code failure;
    for (const auto& entry : std::filesystem::directory_iterator(stateFolder(), failure)) {
        files[entry.path().string()] = entry.file_size();
    }
    return files;
}
