#include "Output.h"

#include <unistd.h>

#include <tlx/File.h>

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

/// Whether a terminal shows the byte, or part of a character, and does not obey it.
bool isHarmless(char before, char c)
{
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20)
        return c == '\n' || c == '\t' || c == '\r';
    // U+0080 to U+009F are control characters, too.
    const bool second = static_cast<unsigned char>(before) == 0xc2 && byte >= 0x80 && byte < 0xa0;
    return byte != 0x7f && !second;
}

} // namespace

Outcome StandardOutput::write(std::string_view bytes)
{
    if (const auto written = Tlx::writeAll(STDOUT_FILENO, bytes); !written)
        return Failure{EC_FAILURE, "cannot write to standard output: " + written.error().message()};
    return {};
}

Outcome StandardDataOutput::write(std::string_view bytes)
{
    if (m_terminal && !bytes.empty()) {
        for (const char c : bytes) {
            if (!isHarmless(m_last, c))
                return Failure{EC_FAILURE, "the data is not text, and standard output is a "
                                           "terminal: redirect it, or name a file with -o"};
            m_last = c;
        }
    }
    return StandardOutput::write(bytes);
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
