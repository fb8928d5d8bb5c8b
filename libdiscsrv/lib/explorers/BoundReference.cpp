#include "BoundReference.h"

#include <unistd.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

void haltUnlessBound(const void* address)
{
    // Compat(halt-on-null): plug-ins that pass a null reference must not run on with it.
    while (address == nullptr)
        ::pause();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
