#pragma once
// Whether other users can change what this process trusts: code that it loads, keys, its
// configuration.
//
// Trusted are root and the effective user of this process. All others are "others", also the group
// of a file: a member of a group can join it without anybody noticing. An access list is covered,
// because the kernel shows its widest entry as the group's permissions.
//
// The checks hold until the file is used: they look at the file and at each directory that could
// replace it, so nobody else can change the answer in between. They do not look above `top`. The
// administrator chose that directory and answers for those above it. So a product tree below /tmp
// can be used, too.
//
// Any thread.

#include <string>

#include <tl/expected.hpp>

#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Tlx {

/// Checks that only trusted users can write a file or directory, or replace it. Each directory from
/// `top` down to it must belong to a trusted user, without permission to write for the group or for
/// others. A symbolic link may lead elsewhere: then the target and its directory are checked as
/// well.
/// @param top a path above the file. If the file is not below it, the file's own directory counts.
/// @return what is wrong, with the path and its mode; also when the file cannot be examined.
[[nodiscard]] tl::expected<void, std::string> checkNotWritableByOthers(const TlxPathname& path,
                                                                       const TlxPathname& top);

/// The same for a secret, for instance a key. Nobody else may read it either.
[[nodiscard]] tl::expected<void, std::string> checkSecret(const TlxPathname& path,
                                                          const TlxPathname& top);

} // namespace Veltrane::Quillmark::Tlx
