#pragma once
// How clients divide what they send and receive into calls.

#include <algorithm>

namespace Veltrane::Quillmark::Bench {

constexpr unsigned long PAGE_BYTES = 1ul << 20; ///< of a payload; the service sends no larger page
constexpr unsigned long PAGE_RECORDS = 1000;    ///< of a listing

/// Calls the function with the size of each page.
template <class Function>
void forEachPage(unsigned long total, unsigned long page, const Function& function)
{
    for (unsigned long left = total; left > 0; left -= std::min(left, page))
        function(std::min(left, page));
}

} // namespace Veltrane::Quillmark::Bench
