#pragma once
// A directory that lives as long as the object, and the files in it.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "support/Lines.h"

namespace QmTest {

/// All bytes of a file; nothing for a file that cannot be read.
inline std::string contentOf(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline Lines linesOf(const std::filesystem::path& path)
{
    std::ifstream file(path);
    Lines lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

inline void writeFile(const std::filesystem::path& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary) << content;
}

/// The constructor makes the directory and throws on failure. The destructor removes it with all
/// that it contains. Threads may share the object.
class TemporaryDirectory
{
  public:
    TemporaryDirectory()
    {
        std::string name = (std::filesystem::temp_directory_path() / "qmtest.XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("no temporary directory");
        m_path = std::filesystem::path(name).lexically_normal();
    }
    ~TemporaryDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return m_path; }
    std::string path(const std::string& name) const { return (m_path / name).string(); }

  private:
    std::filesystem::path m_path;
};

} // namespace QmTest
