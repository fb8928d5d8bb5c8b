#pragma once
// What every harness needs.

#include <cstdlib>
#include <memory>

#include <tlx/Log.h>

namespace Veltrane::Quillmark::Tlx {

/// Ends the process if the condition is false. The fuzzer then reports the input.
inline void require(bool condition)
{
    if (!condition)
        std::abort();
}

/// Drops all log lines from now on. Most inputs fail, and each failure is a line.
inline void dropLog()
{
    struct NoSink : LogSink
    {
        void write(const Line&) override {}
    };
    static const bool dropped = [] {
        LoggerFactory::instance().setSink(std::make_shared<NoSink>());
        return true;
    }();
    (void)dropped;
}

} // namespace Veltrane::Quillmark::Tlx
