#pragma once
// Where the component keeps its files, and the atomic write it needs.
#include <QByteArray>
#include <QString>

namespace zavo::platform {

/// The user's Documents folder (QStandardPaths::DocumentsLocation), or the
/// folder set with setDocumentsDirectory. Empty if neither is known.
QString documentsDirectory();
/// Points Documents somewhere else for the whole process (tests, demos,
/// kiosks with a data partition). An empty path restores the default.
void setDocumentsDirectory(const QString& path);

/// Writes data to a file beside path, then renames it over path, so readers
/// never see a half-written file. Returns false on any failure.
bool writeFileAtomically(const QString& path, const QByteArray& data);
bool writeFileAtomically(const QString& path, const char* data, qint64 size);

}  // namespace zavo::platform
