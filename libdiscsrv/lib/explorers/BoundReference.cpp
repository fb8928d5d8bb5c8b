#include "BoundReference.h"

#include <unistd.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

void haltUnlessBound(const void* address)
{
    while (address == nullptr)
        ::pause();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
