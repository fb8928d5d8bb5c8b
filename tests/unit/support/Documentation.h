#pragma once
// The examples of docs/formats.md, for tests that read and write them. QM_DOCS is the directory.

#include <fstream>
#include <string>
#include <vector>

namespace QmTest {

/// The blocks of code in a section.
inline std::vector<std::string> codeOf(const std::string& section)
{
    std::ifstream file(QM_DOCS "/formats.md");
    std::vector<std::string> blocks;
    bool inSection = false;
    bool inBlock = false;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("## "))
            inSection = line == "## " + section;
        if (!inSection)
            continue;
        if (line == "```") {
            inBlock = !inBlock;
            if (inBlock)
                blocks.emplace_back();
        } else if (inBlock) {
            blocks.back() += line + "\n";
        }
    }
    return blocks;
}

/// A block on one line, as the service writes it. The page has line breaks only for reading. Inside
/// a tag a line break stands for a blank.
inline std::string onOneLine(const std::string& block)
{
    std::string line;
    bool inTag = false;
    for (const char c : block) {
        if (c != '\n')
            line += c;
        else if (inTag)
            line += ' ';
        inTag = c == '<' || (inTag && c != '>');
    }
    return line;
}

} // namespace QmTest
