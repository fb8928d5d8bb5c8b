#pragma once
// Texts for tests.

#include <cstddef>
#include <string>

namespace QmTest {

inline std::string repeated(std::size_t count, const std::string& text)
{
    std::string all;
    all.reserve(count * text.size());
    for (std::size_t i = 0; i < count; ++i)
        all += text;
    return all;
}

} // namespace QmTest
