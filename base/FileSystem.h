#pragma once
// Where the component keeps its files, and the atomic write it needs.
#include "base/ZavoExport.h"
#include <QByteArray>
#include <QString>

namespace zavo::platform {

/// The user's Documents folder (QStandardPaths::DocumentsLocation), or the
/// folder set with setDocumentsDirectory. Empty if neither is known.
ZAVO_EXPORT QString documentsDirectory();
/// Points Documents somewhere else for the whole process (tests, demos,
/// kiosks with a data partition). An empty path restores the default.
ZAVO_EXPORT void setDocumentsDirectory(const QString& path);

/// Writes data to a file beside path, then renames it over path, so readers
/// never see a half-written file. Returns false on any failure.
ZAVO_EXPORT bool writeFileAtomically(const QString& path, const QByteArray& data);
ZAVO_EXPORT bool writeFileAtomically(const QString& path, const char* data, qint64 size);

}  // namespace zavo::platform
