#pragma once
// Logging of the platform library itself. The source file defines LOG_SOURCE.

#include <tlx/Log.h>

/// Logs a chain for operator<< under the platform's own originator.
#define PLATFORM_LOG(level, operation, text)                                                       \
    PLATFORM_LOG_AS(level, ::Veltrane::Quillmark::Tlx::severityOfLevel(level), operation, text)

/// The same at level 1, for a failure that hurts one request only.
#define PLATFORM_WARN(operation, text)                                                             \
    PLATFORM_LOG_AS(::Veltrane::Quillmark::Tlx::LOG_LEVEL_FAILURE,                                 \
                    ::Veltrane::Quillmark::Tlx::LogSeverity::Warning, operation, text)

/// The same at level 1, for a normal event.
#define PLATFORM_NOTICE(operation, text)                                                           \
    PLATFORM_LOG_AS(::Veltrane::Quillmark::Tlx::LOG_LEVEL_FAILURE,                                 \
                    ::Veltrane::Quillmark::Tlx::LogSeverity::Notice, operation, text)

#define PLATFORM_LOG_AS(level, severity, operation, text)                                          \
    TLX_LOG_AS(::Veltrane::Quillmark::Tlx::LoggerFactory::instance().getLogger(                    \
                   ::Veltrane::Quillmark::Tlx::LOG_ORIGINATOR_PLATFORM),                           \
               level, severity, operation, LOG_SOURCE, text)
