#include "BoundReference.h"

#include <unistd.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

void haltUnlessBound(const void* address)
{
    // Compat(halt-on-null): a plug-in that passes a null reference must stop here.
    while (address == nullptr)
        ::pause();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
