#pragma once
// The keys of the host configuration that the explorers of file systems read.

#include <algorithm>
#include <array>
#include <cctype>
#include <string>
#include <string_view>

#include <tlx/ConfigKey.h>

namespace Veltrane::Quillmark {

namespace Explorers {

/// Names of file system types with commas between them.
inline bool isTypeList(const std::string& value)
{
    constexpr std::string_view PUNCTUATION = "._-, ";
    return !value.empty() && std::all_of(value.begin(), value.end(), [&](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) ||
               PUNCTUATION.find(c) != std::string_view::npos;
    });
}

} // namespace Explorers

namespace Tlx::ConfigKey {

/// Whether this host's file systems can be pulled.
inline constexpr DeclaredKey FILESYSTEM_PULL = DeclaredKey::boolean("FILESYSTEM_PULL");
/// The types that are left out.
inline constexpr DeclaredKey FILESYSTEM_EXCLUDE =
    DeclaredKey::text("FILESYSTEM_EXCLUDE", Explorers::isTypeList,
                      "is no list of types, expected for instance pseudo,nfs4");

} // namespace Tlx::ConfigKey

namespace Explorers {

inline constexpr std::array FILE_SYSTEM_KEYS{Tlx::ConfigKey::FILESYSTEM_PULL,
                                             Tlx::ConfigKey::FILESYSTEM_EXCLUDE};

} // namespace Explorers
} // namespace Veltrane::Quillmark
