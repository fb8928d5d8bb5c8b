#pragma once
// What the store's operations cost at least: the file operations themselves.

#include <filesystem>
#include <string>

namespace Veltrane::Quillmark::Bench {

/// A record's two files, written and synced as often as the store does it (payload, directory,
/// metadata).
void putFiles(const std::filesystem::path& directory, const std::string& name,
              const std::string& metadata, const std::string& payload);

/// Opens and reads one file; its size.
std::size_t readFile(const std::filesystem::path& path);

/// Reads the directory, and every file in it that ends in ".xml"; how many.
std::size_t scanFiles(const std::filesystem::path& directory);

} // namespace Veltrane::Quillmark::Bench
