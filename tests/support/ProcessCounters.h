#pragma once
// What a long-running host watches for leaks: threads, open files, memory.
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QMap>
#include <QStringList>
#include <unistd.h>

namespace zavo::testing {

struct ProcessCounters {
    int threads = 0;       // excluding Qt's pooled threads, which expire on their own
    int pooledThreads = 0;
    int fileDescriptors = 0;
    double rssMiB = 0;
    // Which threads (by id, with their names) and descriptors (by number,
    // with what they point at) are alive: a count alone mistakes a thread
    // that ended for one that leaked.
    QMap<QString, QString> threadNames;
    QMap<QString, QString> openFiles;

    static ProcessCounters now()
    {
        ProcessCounters counters;
        const QDir tasks(QStringLiteral("/proc/self/task"));
        for (const QString& task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            QFile comm(tasks.filePath(task + QStringLiteral("/comm")));
            const QString name = comm.open(QIODevice::ReadOnly) ? QString::fromUtf8(comm.readAll().trimmed()) : QString();
            if (name == QLatin1String("Thread (pooled)")) {
                ++counters.pooledThreads;
            } else {
                ++counters.threads;
                counters.threadNames.insert(task, name);
            }
        }
        // The listing's own descriptor is left out: it moves when others do.
        const QString listing = QStringLiteral("/proc/%1/fd").arg(getpid());
        QDirIterator fds(QStringLiteral("/proc/self/fd"), QDir::System | QDir::NoDotAndDotDot);
        while (fds.hasNext()) {
            const QString fd = fds.next();
            const QString target = QFile::symLinkTarget(fd);
            if (target != listing)
                counters.openFiles.insert(QFileInfo(fd).fileName(), target);
        }
        counters.fileDescriptors = int(counters.openFiles.size());
        QFile statm(QStringLiteral("/proc/self/statm"));
        if (statm.open(QIODevice::ReadOnly)) {
            const QList<QByteArray> fields = statm.readAll().split(' ');
            if (fields.size() > 1)
                counters.rssMiB = fields[1].toDouble() * double(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
        }
        return counters;
    }

    /// The threads and files alive now that were not at `before`, named:
    /// empty when nothing was left behind. Qt's pooled threads do not count.
    QStringList leftSince(const ProcessCounters& before) const
    {
        QStringList left;
        for (auto it = threadNames.cbegin(); it != threadNames.cend(); ++it) {
            if (!before.threadNames.contains(it.key()))
                left << QStringLiteral("thread %1 (%2)").arg(it.key(), it.value());
        }
        for (auto it = openFiles.cbegin(); it != openFiles.cend(); ++it) {
            if (before.openFiles.value(it.key()) != it.value())
                left << QStringLiteral("fd %1 -> %2").arg(it.key(), it.value());
        }
        return left;
    }
};

}  // namespace zavo::testing
