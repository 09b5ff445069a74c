#pragma once
// What every harness needs once per process: an application object (queues
// and file code expect one), a private HOME so that nothing lands in the
// user's Documents, a scratch folder, and a log that stays silent so that
// the fuzzer's own output stays readable and fast. ZAVO_FUZZ_VERBOSE=1
// brings the log back when a reproducer is being studied.
extern "C" {
#include <libavutil/log.h>
}

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QString>
#include <QTemporaryDir>

#include "base/DispatchQueue.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

namespace zavo::fuzz {

namespace detail {

inline void dropMessage(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    // A fatal message is a crash: let the fuzzer see it as one.
    if (type == QtFatalMsg) {
        std::fprintf(stderr, "qFatal: %s\n", qUtf8Printable(message));
        std::abort();
    }
}

struct Environment {
    QTemporaryDir home{QDir::tempPath() + QStringLiteral("/zavo-fuzz-XXXXXX")};
    std::unique_ptr<QCoreApplication> application;

    Environment()
    {
        if (!home.isValid()) {
            std::fprintf(stderr, "cannot make a scratch folder\n");
            std::abort();
        }
        qputenv("HOME", QFile::encodeName(home.path()));
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.path() + QStringLiteral("/.config")));
        QDir(home.path()).mkpath(QStringLiteral("Documents"));
        QDir(home.path()).mkpath(QStringLiteral("scratch"));
        if (qEnvironmentVariableIntValue("ZAVO_FUZZ_VERBOSE") == 0) {
            qInstallMessageHandler(dropMessage);
            av_log_set_level(AV_LOG_QUIET);
        }
        static int argc = 1;
        static char name[] = "zavo-fuzz";
        static char* argv[] = {name, nullptr};
        application = std::make_unique<QCoreApplication>(argc, argv);
    }
};

}  // namespace detail

/// Sets the process up on the first call; every harness calls it first.
inline void setUpOnce()
{
    static detail::Environment environment;
}

/// A folder of the harness's own that lives as long as the process.
inline QString scratchPath()
{
    return QDir::homePath() + QStringLiteral("/scratch");
}

/// Writes bytes to path, replacing what was there; aborts when it cannot,
/// since a harness that silently tests nothing is worse than one that stops.
inline void writeFileOrDie(const QString& path, const uint8_t* data, size_t size)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)
        || (size > 0 && file.write(reinterpret_cast<const char*>(data), qint64(size)) != qint64(size))) {
        std::fprintf(stderr, "cannot write %s\n", qUtf8Printable(path));
        std::abort();
    }
}

/// Stops the run with a message: a broken promise of the code under test.
[[noreturn]] inline void fail(const char* what)
{
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}

/// Waits until every serial queue's thread has ended. Work may go on after
/// its last report (a writer finishing, queues winding down); the fuzzer
/// counts leaks as soon as an input returns, and would otherwise take that
/// work in flight for a leak. A thread that never ends is a leak for real.
inline void waitForQueuesToEnd()
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (platform::DispatchQueue::liveThreadCount() > 0) {
        if (Clock::now() > deadline)
            fail("a queue's thread outlived its work");
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace zavo::fuzz
