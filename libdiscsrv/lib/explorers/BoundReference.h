#pragma once
// References that refer to no object.

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Returns when the address is that of an object. Otherwise it never does: an explorer that was
/// handed a reference to nothing must not go on, and there is nobody to report it to.
///
/// By the rules of the language a reference always refers to an object, so a compiler that sees
/// caller and check together leaves the check out. That is why it stands in a file of its own,
/// which is compiled without that assumption.
void haltUnlessBound(const void* address);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
