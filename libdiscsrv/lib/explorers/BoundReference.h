#pragma once
// A check for null references.

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Returns if the address is not null. Otherwise it halts the thread for ever: an explorer must not
/// go on with a null reference, and nobody would receive a report.
///
/// By the rules of C++ a reference is never null. So if a compiler sees the caller and this check
/// together, it removes the check. Therefore the check has a source file of its own, which is
/// compiled without that assumption.
void haltUnlessBound(const void* address);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
