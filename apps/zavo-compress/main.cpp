// zavo-compress INPUT: re-encodes a movie in place the way the recorder does
// after a session (first video track only, 320x180 H.264, orientation kept),
// with a progress bar when stderr is a terminal.
#include "base/DispatchQueue.h"
#include "recording/ZMVideoCompresion_p.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStringList>
#include <QTextStream>
#include <atomic>
#include <cstdio>

#include <unistd.h>

using zavo::CompressionResult;
using zavo::ZMVideoCompresion;

namespace {

/// What the compressor's threads report to the main thread.
struct Outcome {
    std::atomic<bool> finishing{false};  // every frame is in; a success report always follows
    std::atomic<bool> failed{false};
    std::atomic<int> shownPercent{-1};
};

void drawProgress(Outcome& outcome, double fraction)
{
    const int percent = int(fraction * 100);
    if (outcome.shownPercent.exchange(percent) == percent)
        return;
    constexpr int kWidth = 40;
    const int filled = percent * kWidth / 100;
    std::fprintf(stderr, "\r[%.*s%*s] %3d%%", filled, "########################################", kWidth - filled, "",
                 percent);
    std::fflush(stderr);
}

/// Called on the compressor's threads. The main queue hands the call over
/// under a lock of ours, so the thread checker sees the outcome's writes
/// ordered before main() reads them.
void quitSoon() { zavo::platform::DispatchQueue::main().async([] { QCoreApplication::quit(); }); }

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() != 2 || arguments[1].startsWith(QLatin1Char('-'))) {
        std::fprintf(stderr, "usage: zavo-compress INPUT\n"
                             "Re-encodes INPUT in place: first video track only, 320x180 H.264 MP4,\n"
                             "orientation kept as the track's transform, audio dropped.\n");
        return 2;
    }
    const QFileInfo input(arguments[1]);
    const QString inputPath = input.absoluteFilePath();
    // The compressor writes beside the input and then moves the result over it.
    const QString outputPath = input.absoluteDir().filePath(
        QStringLiteral(".%1.recompressed-%2.mp4").arg(input.completeBaseName()).arg(QCoreApplication::applicationPid()));

    auto outcome = std::make_shared<Outcome>();
    auto compressor = ZMVideoCompresion::create();
    const bool terminal = ::isatty(STDERR_FILENO);
    if (terminal)
        compressor->setProgressHandler([outcome](double fraction) {
            drawProgress(*outcome, fraction);
            if (fraction >= 1.0)
                outcome->finishing = true;
        });
    else
        compressor->setProgressHandler([outcome](double fraction) {
            if (fraction >= 1.0)
                outcome->finishing = true;
        });
    compressor->compressFile(inputPath, outputPath, [outcome](CompressionResult result) {
        if (result == CompressionResult::failure) {
            outcome->failed = true;
            // Past finishing, a failed swap is followed by a success report.
            if (!outcome->finishing)
                quitSoon();
            return;
        }
        quitSoon();
    });
    app.exec();
    if (terminal)
        std::fprintf(stderr, "\n");
    QTextStream out(stdout);
    if (outcome->failed) {
        out << "zavo-compress: " << inputPath << ": failure\n";
        return 1;
    }
    out << "zavo-compress: " << inputPath << ": success\n";
    return 0;
}
