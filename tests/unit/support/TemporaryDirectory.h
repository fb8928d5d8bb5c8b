#pragma once
// A directory that lives as long as the object, and the files in it.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <tlx/File.h>

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

/// A directory as the product makes one, with paths as the tests use them. The constructor throws
/// on failure. The destructor removes the directory with all that it contains. Threads may share
/// it.
class TemporaryDirectory
{
  public:
    const std::filesystem::path& path() const { return m_path; }
    std::string path(const std::string& name) const { return (m_path / name).string(); }

  private:
    const Veltrane::Quillmark::Tlx::TemporaryDirectory m_directory =
        Veltrane::Quillmark::Tlx::TemporaryDirectory::make("qmtest.").value();
    const std::filesystem::path m_path =
        std::filesystem::path(m_directory.path().text()).lexically_normal();
};

} // namespace QmTest
