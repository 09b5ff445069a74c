#pragma once
// Every message logged while a test runs, for checks on lines that come from
// other threads or must appear a given number of times.
#include "base/ThreadSafety.h"

#include <QRegularExpression>
#include <QStringList>
#include <QtGlobal>

namespace zavo::testing {

/// Every message logged while installed, passed on to Qt Test's own handler.
/// Recorded rather than matched with QTest::ignoreMessage because the lines
/// come from capture and recorder threads after the outcome, at moments the
/// test does not control.
class LogRecorder {
public:
    LogRecorder() { previous_ = qInstallMessageHandler(&LogRecorder::handle); }
    ~LogRecorder() { qInstallMessageHandler(previous_); }
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    static LogRecorder& instance()
    {
        static LogRecorder recorder;
        return recorder;
    }
    void clear()
    {
        zavo::MutexLocker lock(mutex_);
        lines_.clear();
    }
    QStringList lines() const
    {
        zavo::MutexLocker lock(mutex_);
        return lines_;
    }
    bool contains(const QString& exact) const { return lines().contains(exact); }
    int count(const QRegularExpression& pattern) const
    {
        int n = 0;
        for (const QString& line : lines())
            n += pattern.match(line).hasMatch() ? 1 : 0;
        return n;
    }

private:
    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& message)
    {
        LogRecorder& self = instance();
        {
            zavo::MutexLocker lock(self.mutex_);
            self.lines_ << message;
        }
        if (self.previous_)
            self.previous_(type, context, message);
    }
    mutable zavo::Mutex mutex_;
    QStringList lines_ ZAVO_GUARDED_BY(mutex_);
    QtMessageHandler previous_ = nullptr;
};

}  // namespace zavo::testing
