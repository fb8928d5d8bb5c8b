#include "Output.h"

#include <unistd.h>

#include <tlx/Character.h>
#include <tlx/File.h>

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

/// Whether the byte is text for a terminal, or a part of a character, and not a control.
bool isHarmless(char before, char c)
{
    if (c == '\n' || c == '\t' || c == '\r')
        return true;
    const auto byte = static_cast<unsigned char>(c);
    // After 0xc2 the second byte of a character equals the code point.
    const bool isCodePoint = byte < 0x80 || static_cast<unsigned char>(before) == 0xc2;
    return !isCodePoint || !Tlx::isControl(byte);
}

} // namespace

Result<> StandardOutput::write(std::string_view bytes)
{
    if (const auto written = Tlx::writeAll(STDOUT_FILENO, bytes); !written)
        return tl::unexpected(
            Failure{EC_FAILURE, "cannot write to standard output: " + written.error().message()});
    return {};
}

Result<> StandardDataOutput::write(std::string_view bytes)
{
    if (m_terminal && !bytes.empty()) {
        for (const char c : bytes) {
            if (!isHarmless(m_last, c))
                return tl::unexpected(Failure{EC_FAILURE,
                                              "the data is not text, and standard output is a "
                                              "terminal: redirect it, or name a file with -o"});
            m_last = c;
        }
    }
    return StandardOutput::write(bytes);
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
