#pragma once
// Fills a store with records, quickly. No service may use the store meanwhile.

#include <filesystem>
#include <string>

namespace Veltrane::Quillmark::Bench {

/// Writes the files of the records from number `from` to `to` - 1, with payloads of `size` bytes.
/// They are as the service writes them, permissions included, but nothing is synced. The store's
/// init must have been called for the directory. Throws on failure.
void fillStore(const std::filesystem::path& store, const std::string& authority, unsigned long size,
               unsigned long from, unsigned long to);

} // namespace Veltrane::Quillmark::Bench
