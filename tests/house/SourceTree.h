#pragma once

#include <map>
#include <string>
#include <vector>

/** The layers of vzdefrag; an include may only point to the same or a lower one. In other trees
 *  all is of the base but main.cpp. */
enum class SourceLayer { kPlatform, kKLKit, kBase, kHFSPlus, kTasks, kApplication };

/** One source or header, as text. */
struct SourceFile {
    std::string path;  // relative to the source root
    std::string text;

    [[nodiscard]] SourceLayer layer() const;
    [[nodiscard]] bool isHeader() const { return path.ends_with(".h"); }
    [[nodiscard]] size_t lineCount() const;
    /** Paths of the includes in quotes, in order. */
    [[nodiscard]] std::vector<std::string> quotedIncludes() const;
    /** Paths of the includes in angle brackets, in order. */
    [[nodiscard]] std::vector<std::string> systemIncludes() const;
    /** The path of the very first include, of either kind; empty when there is none. */
    [[nodiscard]] std::string firstInclude() const;
};

/** The files of a source tree by path. */
using SourceTree = std::map<std::string, SourceFile>;

/** Reads every source and header below @p root. */
[[nodiscard]] SourceTree readSourceTree(const std::string& root);

/** The includes of @p tree, of either kind, that name a file of @p other, one sentence each. */
[[nodiscard]] std::vector<std::string> includesOfAnotherTree(const SourceTree& tree,
                                                             const SourceTree& other);

/** What is wrong in @p tree, one sentence each: */
[[nodiscard]] std::vector<std::string> includesAgainstTheLayers(const SourceTree& tree);
[[nodiscard]] std::vector<std::string> sourcesNotStartingWithTheirHeader(const SourceTree& tree);
[[nodiscard]] std::vector<std::string> filesThatAreTooLong(const SourceTree& tree);
[[nodiscard]] std::vector<std::string> headersWithoutGuard(const SourceTree& tree);
