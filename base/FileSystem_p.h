#pragma once
// File writes for the component's own scratch files.
#include "base/ZavoExport.h"
#include <QString>

namespace zavo::platform {

/// Writes data to a file beside path, then renames it over path, like
/// writeFileAtomically, but without flushing it to the disk first. A reader
/// never sees a half-written file under path; only a power loss could leave
/// it short. Meant for files that live a few seconds (one frame each, read
/// back and deleted when the recording ends), where a sync per file would
/// cost more than the write. Returns false on any failure (full disk, folder
/// missing or unwritable), and then leaves nothing behind under either name.
/// Callable from any thread.
ZAVO_EXPORT bool writeScratchFileAtomically(const QString& path, const char* data, qint64 size);

}  // namespace zavo::platform
