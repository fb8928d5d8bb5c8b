#pragma once
// Logging of the platform library itself.

#include <tlx/Log.h>

/// Logs a chain for operator<< under the platform's own originator. The source file defines
/// LOG_SOURCE.
#define PLATFORM_LOG(level, operation, text)                                                       \
    TLX_LOG(::Veltrane::Quillmark::Tlx::LoggerFactory::instance().getLogger(                       \
                ::Veltrane::Quillmark::Tlx::LOG_ORIGINATOR_PLATFORM),                              \
            level, operation, LOG_SOURCE, text)
