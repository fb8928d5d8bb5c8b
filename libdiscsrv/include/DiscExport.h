#pragma once
// What the shared library offers to plug-ins, the host daemon and tools; all else stays inside.
#define DISCSRV_EXPORT __attribute__((visibility("default")))
