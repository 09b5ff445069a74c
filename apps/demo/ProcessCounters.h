#pragma once
// What a long-running host watches for leaks: threads, open files, memory.
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QStringList>
#include <unistd.h>

namespace zavo::demo {

struct ProcessCounters {
    int threads = 0;       // excluding Qt's pooled threads, which expire on their own
    int pooledThreads = 0;
    int fileDescriptors = 0;
    double rssMiB = 0;

    static ProcessCounters now()
    {
        ProcessCounters counters;
        const QDir tasks(QStringLiteral("/proc/self/task"));
        for (const QString& task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            QFile comm(tasks.filePath(task + QStringLiteral("/comm")));
            if (comm.open(QIODevice::ReadOnly) && comm.readAll().trimmed() == "Thread (pooled)")
                ++counters.pooledThreads;
            else
                ++counters.threads;
        }
        counters.fileDescriptors = int(QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::System | QDir::NoDotAndDotDot).size());
        QFile statm(QStringLiteral("/proc/self/statm"));
        if (statm.open(QIODevice::ReadOnly)) {
            const QList<QByteArray> fields = statm.readAll().split(' ');
            if (fields.size() > 1)
                counters.rssMiB = fields[1].toDouble() * double(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
        }
        return counters;
    }

    /// The threads' names, to say which one leaked.
    static QStringList threadNames()
    {
        QStringList names;
        const QDir tasks(QStringLiteral("/proc/self/task"));
        for (const QString& task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            QFile comm(tasks.filePath(task + QStringLiteral("/comm")));
            if (comm.open(QIODevice::ReadOnly))
                names << QString::fromUtf8(comm.readAll().trimmed());
        }
        return names;
    }

    /// Where the descriptors point, to say which file leaked.
    static QStringList openFiles()
    {
        QStringList targets;
        QDirIterator it(QStringLiteral("/proc/self/fd"), QDir::System | QDir::NoDotAndDotDot);
        while (it.hasNext())
            targets << QFile::symLinkTarget(it.next());
        return targets;
    }
};

}  // namespace zavo::demo
