#pragma once
// The logging of this library. A source file defines LOG_SOURCE before it logs.
//
// Compat(log-sources): log readers know a unit by its LOG_SOURCE, even where its file has another
// name.

#include <tlx/Assert.h>
#include <tlx/Log.h>

#include "DiscExport.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The logging originator of the discovery service.
constexpr unsigned LOG_ORIGINATOR = 400;

/// The current logger of the service. Any thread may call it. A stale logger is replaced.
DISCSRV_EXPORT Logger* getTlxLogger();

/// For a line about something that is normal in one case: a notice then, and a warning otherwise.
constexpr LogSeverity noticeIf(bool isNormal)
{
    return isNormal ? LogSeverity::Notice : LogSeverity::Warning;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc

/// Opens the trace of an operation. Until the end of the block, all that this thread logs carries
/// the operation's name.
#define DISC_TRACE(name)                                                                           \
    const ::Veltrane::Quillmark::Tlx::Tracer discTracer_(                                          \
        ::Veltrane::Quillmark::Tlx::DiscoverySvc::getTlxLogger(), name, LOG_SOURCE, __LINE__)

/// Logs at a level; text may chain operator<<. The line carries the operation of this thread's
/// innermost DISC_TRACE or LogScope, and the severity of its level.
#define DISC_LOG(level, text)                                                                      \
    DISC_LOG_AS(level, ::Veltrane::Quillmark::Tlx::severityOfLevel(level), text)

/// The same at level 1, for a failure that hurts one request only.
#define DISC_WARN(text)                                                                            \
    DISC_LOG_AS(::Veltrane::Quillmark::Tlx::LOG_LEVEL_FAILURE,                                     \
                ::Veltrane::Quillmark::Tlx::LogSeverity::Warning, text)

/// The same at level 1, for a normal event.
#define DISC_NOTICE(text)                                                                          \
    DISC_LOG_AS(::Veltrane::Quillmark::Tlx::LOG_LEVEL_FAILURE,                                     \
                ::Veltrane::Quillmark::Tlx::LogSeverity::Notice, text)

#define DISC_LOG_AS(level, severity, text)                                                         \
    TLX_LOG_AS(::Veltrane::Quillmark::Tlx::DiscoverySvc::getTlxLogger(), level, severity,          \
               ::Veltrane::Quillmark::Tlx::LogScope::current(), LOG_SOURCE, text)
