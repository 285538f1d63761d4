#include "house/SourceTree.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace {

constexpr size_t kMaximumSourceLines = 500;
constexpr size_t kMaximumHeaderLines = 150;

std::vector<std::string> includesMatching(const std::string& text, const std::string& pattern)
{
    std::vector<std::string> includes;
    const std::regex line(pattern);
    std::istringstream stream(text);
    for (std::string content; std::getline(stream, content);) {
        std::smatch match;
        if (std::regex_search(content, match, line)) {
            includes.push_back(match[1]);
        }
    }
    return includes;
}

std::string folderOf(const std::string& path)
{
    return path.substr(0, path.find_last_of('/') + 1);
}

/** Whether a source may begin with @p include. */
bool isOwnHeader(const SourceTree& tree, const std::string& path, const std::string& include)
{
    const std::string header = path.substr(0, path.size() - std::string(".cpp").size()) + ".h";
    if (tree.contains(header)) {
        return include == header;
    }
    // The implementation of an interface has the interface's header.
    const std::string implementation = "Platform/Linux";
    if (header.starts_with(implementation)) {
        return include == "Platform/Platform" + header.substr(implementation.size());
    }
    // The second source of a class begins with the class.
    return tree.contains(include) && folderOf(include) == folderOf(path);
}

/** The first line of @p text that is neither empty nor a comment. */
std::string firstLineOfCode(const std::string& text)
{
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty() && !line.starts_with("//")) {
            return line;
        }
    }
    return {};
}

}  // namespace

SourceLayer SourceFile::layer() const
{
    if (path.starts_with("Platform/")) {
        return SourceLayer::kPlatform;
    }
    if (path.starts_with("KLKit/")) {
        return SourceLayer::kKLKit;
    }
    if (path.starts_with("HFSPlus/")) {
        return SourceLayer::kHFSPlus;
    }
    if (path.starts_with("Tasks/")) {
        return SourceLayer::kTasks;
    }
    const bool application = path == "main.cpp" || path.starts_with("VZDefragToolApplication.");
    return application ? SourceLayer::kApplication : SourceLayer::kBase;
}

size_t SourceFile::lineCount() const
{
    return static_cast<size_t>(std::ranges::count(text, '\n'));
}

std::vector<std::string> SourceFile::quotedIncludes() const
{
    return includesMatching(text, R"re(^\s*#\s*include\s*"([^"]+)")re");
}

std::vector<std::string> SourceFile::systemIncludes() const
{
    return includesMatching(text, R"(^\s*#\s*include\s*<([^>]+)>)");
}

std::string SourceFile::firstInclude() const
{
    const std::vector<std::string> includes =
        includesMatching(text, R"re(^\s*#\s*include\s*["<]([^">]+)[">])re");
    return includes.empty() ? std::string() : includes.front();
}

SourceTree readSourceTree(const std::string& root)
{
    SourceTree tree;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        const std::string extension = entry.path().extension();
        if (!entry.is_regular_file() || (extension != ".h" && extension != ".cpp")) {
            continue;
        }
        std::ifstream stream(entry.path(), std::ios::binary);
        std::ostringstream text;
        text << stream.rdbuf();
        const std::string path = std::filesystem::relative(entry.path(), root);
        tree[path] = SourceFile{.path = path, .text = text.str()};
    }
    return tree;
}

std::vector<std::string> includesAgainstTheLayers(const SourceTree& tree)
{
    std::vector<std::string> faults;
    for (const auto& [path, file] : tree) {
        for (const std::string& include : file.quotedIncludes()) {
            const auto included = tree.find(include);
            if (included == tree.end()) {
                faults.push_back(path + " includes " + include + ", which is no file of ours");
            } else if (included->second.layer() > file.layer()) {
                faults.push_back(path + " includes " + include + " of a layer above its own");
            }
        }
        for (const std::string& include : file.systemIncludes()) {
            if (tree.contains(include)) {
                faults.push_back(path + " includes " + include + " as if it were the system's");
            }
        }
    }
    return faults;
}

std::vector<std::string> includesOfAnotherTree(const SourceTree& tree, const SourceTree& other)
{
    std::vector<std::string> faults;
    for (const auto& [path, file] : tree) {
        for (const std::vector<std::string>& includes :
             {file.quotedIncludes(), file.systemIncludes()}) {
            for (const std::string& include : includes) {
                if (!tree.contains(include) && other.contains(include)) {
                    faults.push_back(path + " includes " + include + " of another program");
                }
            }
        }
    }
    return faults;
}

std::vector<std::string> sourcesNotStartingWithTheirHeader(const SourceTree& tree)
{
    std::vector<std::string> faults;
    for (const auto& [path, file] : tree) {
        if (file.isHeader() || path == "main.cpp") {
            continue;
        }
        if (!isOwnHeader(tree, path, file.firstInclude())) {
            faults.push_back(path + " does not include its own header first");
        }
    }
    return faults;
}

std::vector<std::string> filesThatAreTooLong(const SourceTree& tree)
{
    std::vector<std::string> faults;
    for (const auto& [path, file] : tree) {
        const size_t limit = file.isHeader() ? kMaximumHeaderLines : kMaximumSourceLines;
        if (file.lineCount() > limit) {
            faults.push_back(path + " has " + std::to_string(file.lineCount()) + " lines");
        }
    }
    return faults;
}

std::vector<std::string> headersWithoutGuard(const SourceTree& tree)
{
    std::vector<std::string> faults;
    for (const auto& [path, file] : tree) {
        if (file.isHeader() && firstLineOfCode(file.text) != "#pragma once") {
            faults.push_back(path + " does not begin with #pragma once");
        }
    }
    return faults;
}
