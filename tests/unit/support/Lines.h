#pragma once
// Lines of text, as the tests compare them.

#include <string>
#include <vector>

namespace QmTest {

using Lines = std::vector<std::string>;

} // namespace QmTest
