#pragma once
// The file operations behind the store's operations. They take the least possible time.

#include <filesystem>
#include <string>

namespace Veltrane::Quillmark::Bench {

/// Writes the two files of a record. Syncs payload, directory and metadata, as the store does.
void putFiles(const std::filesystem::path& directory, const std::string& name,
              const std::string& metadata, const std::string& payload);

/// Opens and reads one file. Returns its size.
std::size_t readFile(const std::filesystem::path& path);

/// Reads the directory and every ".xml" file in it. Returns the number of these files.
std::size_t scanFiles(const std::filesystem::path& directory);

} // namespace Veltrane::Quillmark::Bench
