#pragma once
// How large a page may be.

#include <cstddef>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

/// The room that a reply's header and the length of its page take in a message.
constexpr std::size_t PAGE_HEADER_BYTES = 4096;

/// The most bytes of a page: MAX_PAGE_BYTES, or less if MAX_MESSAGE_BYTES leaves less room.
std::size_t largestPage();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
