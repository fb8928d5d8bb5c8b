#pragma once
// Checks the texts of options.

#include <cstdint>
#include <functional>
#include <string>

namespace Veltrane::Quillmark::Qmdiscoctl {

/// Returns the mistake in a text as one line for a person, empty for a good text.
using Check = std::function<std::string(const std::string&)>;

Check numberUpTo(std::uint64_t lowest, std::uint64_t highest);

/// A text that the wire can carry: UTF-8.
std::string checkUtf8(const std::string& text);
std::string checkName(const std::string& text);
std::string checkFilter(const std::string& text);
std::string checkFile(const std::string& text);
std::string checkRoot(const std::string& text);
std::string checkHost(const std::string& text);
std::string checkType(const std::string& text);
std::string checkQueryType(const std::string& text);

/// The number that a checked text holds.
std::uint64_t numberOf(const std::string& text);

/// A text in double quotes, escaped for a terminal.
std::string quoted(const std::string& text);

} // namespace Veltrane::Quillmark::Qmdiscoctl
