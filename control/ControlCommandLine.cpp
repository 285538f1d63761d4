#include "ControlCommandLine.h"

#include <CLI/CLI.hpp>
#include <array>
#include <charconv>
#include <iostream>
#include <map>

#include "ControlStatus.h"

namespace {

using Command = ControlOptions::Command;

constexpr size_t kLargestTop = 10000;
constexpr size_t kLargestPicture = 1000;  // cells of a terminal, either way

const std::map<std::string, ControlSort> kSorts = {{"extents", ControlSort::kExtents},
                                                   {"blocks", ControlSort::kBlocks},
                                                   {"name", ControlSort::kName}};
const std::map<std::string, ControlOptions::Color> kColors = {
    {"auto", ControlOptions::Color::kAuto},
    {"always", ControlOptions::Color::kAlways},
    {"never", ControlOptions::Color::kNever}};

constexpr const char* kFooter =
    "Exit status: 0 done; 1 stopped early, volume consistent; 2 wrong usage; 3 refused;\n"
    "4 not an HFS Plus volume, or inconsistent: check it first; 5 input/output error;\n"
    "6 files differ after the run; 7 vzdefrag failed.";

/** The words of @p names with bars between, as a help text shows a choice. */
template <typename Value>
std::string choiceOf(const std::map<std::string, Value>& names)
{
    std::string choice;
    for (const auto& [name, value] : names) {
        choice += (choice.empty() ? "" : "|") + name;
    }
    return choice;
}

/** An option that takes one of the words of @p names. */
template <typename Value>
void addChoice(CLI::App& app, const std::string& name, Value& value,
               const std::map<std::string, Value>& names, const std::string& help)
{
    app.add_option_function<std::string>(
           name, [&value, &names](const std::string& word) { value = names.at(word); }, help)
        ->check(CLI::IsMember(names))
        ->type_name(choiceOf(names));
}

void addCommonOptions(CLI::App& app, ControlOptions& options)
{
    app.add_option("IMAGE", options.image, "block device or image file with the volume")
        ->required();
    app.add_option("--tool", options.tool, "the vzdefrag to start")->type_name("PATH");
    app.add_option("--rollback", options.rollbackFile, "rollback file in place of the usual one")
        ->type_name("FILE");
}

std::string checkDuration(const std::string& text)
{
    return secondsIn(text) ? "" : "not a duration such as 90s, 5m or 1h30m: " + text;
}

std::string checkProfile(const std::string& text)
{
    const bool isKnown =
        text == "boot" || text == "app" || text == "boot,app" || text == "app,boot";
    return isKnown ? "" : "not a list of boot and app: " + text;
}

std::string checkPercent(const std::string& text)
{
    double percent = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, percent, std::chars_format::fixed);
    const bool isNumber = result.ec == std::errc() && result.ptr == end;
    // What is no number compares as false.
    return isNumber && percent >= 0 && percent <= 100 ? "" : "not from 0 to 100: " + text;
}

void addRunOptions(CLI::App& app, ControlOptions& options)
{
    CLI::Option* const plain =
        app.add_flag("--plain", options.isPlain, "lines in place of the live screen");
    app.add_flag("--json-events", options.asEvents, "one JSON object a line")->excludes(plain);
    app.add_option_function<std::string>(
           "--time-limit",
           [&options](const std::string& text) { options.timeLimit = secondsIn(text); },
           "stop safely after so long: 90s, 5m, 1h30m")
        ->check(checkDuration)
        ->type_name("DURATION");
    app.add_option("--threshold", options.threshold,
                   "do nothing when less than so much of the files' blocks is in pieces")
        ->check(checkPercent)
        ->type_name("PERCENT");
    app.add_flag("--verify", options.verifies, "compare every file's blocks before and after");
    app.add_option("--report", options.reportFile, "write a page with before and after")
        ->type_name("FILE");
    app.add_flag("-y,--yes", options.isConfirmed, "write to a block device without asking");
    app.add_flag("--force", options.isForced, "begin even with too little free space");
    app.add_flag("--no-rollback", options.withoutRollback, "keep no rollback file");
    app.add_flag("--lowpri", options.isLowPriority, "run in the idle class of disk input/output");
}

CLI::App* addCommand(CLI::App& app, ControlOptions& options, Command command, const char* name,
                     const char* help)
{
    CLI::App* const added = app.add_subcommand(name, help);
    added->callback([&options, command] { options.command = command; });
    added->footer(kFooter);
    addCommonOptions(*added, options);
    return added;
}

void addReadingCommands(CLI::App& app, ControlOptions& options)
{
    CLI::App* const info = addCommand(app, options, Command::kInfo, "info",
                                      "say how a volume is used and how fragmented it is");
    info->add_option("--top", options.top, "how many of the worst files to list (10)")
        ->check(CLI::Range(size_t{0}, kLargestTop))
        ->type_name("COUNT");
    addChoice(*info, "--sort", options.sort, kSorts, "what makes a file the worst (extents)");
    CLI::Option* const json = info->add_flag("--json", options.asJSON, "one JSON document");
    info->add_flag("--csv", options.asCSV, "all files as comma-separated values")->excludes(json);

    CLI::App* const map =
        addCommand(app, options, Command::kMap, "map", "show the volume as a picture");
    map->add_option("--width", options.columns, "columns of the picture")
        ->check(CLI::Range(size_t{20}, kLargestPicture))
        ->type_name("COLUMNS");
    map->add_option("--height", options.rows, "rows of the picture")
        ->check(CLI::Range(size_t{6}, kLargestPicture))
        ->type_name("ROWS");
    map->add_flag("--ascii", options.asASCII, "plain ASCII");
    addChoice(*map, "--color", options.color, kColors, "colours (auto)");
    map->add_option("--svg", options.svgFile, "write the picture to a file")->type_name("FILE");

    CLI::App* const report =
        addCommand(app, options, Command::kReport, "report", "write a page about the volume");
    report->add_option("-o,--output", options.reportFile, "where to write it")
        ->required()
        ->type_name("FILE");
    report
        ->add_option("--baseline", options.baselineFile,
                     "figures to compare with, as info --json has saved them")
        ->type_name("FILE");
}

void addWritingCommands(CLI::App& app, ControlOptions& options)
{
    CLI::App* const defrag = addCommand(app, options, Command::kDefrag, "defrag",
                                        "put every file in one piece, free space behind");
    defrag
        ->add_option("--profile", options.profile,
                     "files of a start-up profile first: boot, app or both")
        ->check(checkProfile)
        ->type_name("boot,app");
    addRunOptions(*defrag, options);
    CLI::App* const compact = addCommand(app, options, Command::kCompact, "compact",
                                         "put all data at the front, free space in one run");
    addRunOptions(*compact, options);
    addCommand(app, options, Command::kRecover, "recover",
               "undo what an interrupted run has left half done");
}

}  // namespace

std::optional<double> secondsIn(const std::string& text)
{
    double seconds = 0;
    const char* position = text.data();
    const char* const end = position + text.size();
    double previousUnit = 0;
    while (position < end) {
        double number = 0;
        const auto result = std::from_chars(position, end, number, std::chars_format::fixed);
        if (result.ec != std::errc() || !(number >= 0) || *position == '-') {
            return std::nullopt;
        }
        position = result.ptr;
        const char unit = position < end ? *position++ : 's';
        const double length = unit == 'h' ? 3600 : unit == 'm' ? 60 : unit == 's' ? 1 : 0;
        // The larger unit comes first, and each once.
        if (length == 0 || (previousUnit != 0 && length >= previousUnit)) {
            return std::nullopt;
        }
        previousUnit = length;
        seconds += number * length;
    }
    const bool isDuration = seconds > 0 && seconds < 1e9;
    return isDuration ? std::optional(seconds) : std::nullopt;
}

std::optional<int> parseCommandLine(int argc, const char* const* argv, ControlOptions& options)
{
    CLI::App app("Looks at HFS Plus volumes and defragments them with vzdefrag.", "vzdefragctl");
    app.set_version_flag("--version", "vzdefragctl " VZDEFRAG_VERSION);
    app.set_help_all_flag("--help-all", "show the help of all commands");
    app.require_subcommand(1);
    app.footer(kFooter);
    addReadingCommands(app, options);
    addWritingCommands(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& failure) {
        // Help and version come this way as well, with status 0.
        const int status = app.exit(failure, std::cout, std::cerr);
        if (status != 0) {
            return static_cast<int>(ControlStatus::kUsage);
        }
        std::cout.flush();
        return static_cast<int>(std::cout ? ControlStatus::kDone : ControlStatus::kInputOutput);
    }
    return std::nullopt;
}
