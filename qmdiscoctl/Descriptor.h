#pragma once
// What reading and writing by file descriptor have in common.

#include <string_view>

namespace Veltrane::Quillmark::Qmdiscoctl {

/// Writes everything, whatever the descriptor takes at a time. 0 on success, else errno.
int writeAll(int fd, std::string_view bytes);

/// Fills a buffer as far as there is something to read. The count, less than size only at the end;
/// -1 with errno set.
long readFull(int fd, char* buffer, std::size_t size);

/// Makes sure that the descriptors 0, 1 and 2 exist, so that no file or connection ever gets one of
/// them: a closed one becomes one on which reading, or writing, fails.
void ensureStandardDescriptors();

} // namespace Veltrane::Quillmark::Qmdiscoctl
