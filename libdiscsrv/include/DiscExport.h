#pragma once
// Marks what the shared library exports for plug-ins, the host daemon and tools.
#define DISCSRV_EXPORT __attribute__((visibility("default")))
