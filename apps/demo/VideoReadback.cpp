#include "VideoReadback.h"

#include "media/Asset.h"

namespace zavo::demo {

namespace {

QSize shownSize(const platform::AssetTrack& track)
{
    return track.preferredTransform().mapRect(QRect(QPoint(0, 0), track.naturalSize())).size();
}

// A track only points back to its asset weakly, so the caller keeps the
// asset while it uses the track.
platform::AssetTrackPtr firstVideoTrack(const platform::AssetPtr& asset, QString* problem)
{
    platform::ErrorPtr error;
    const auto tracks = asset->tracksWithMediaType(platform::MediaType::Video, &error);
    if (tracks.empty()) {
        *problem = error ? error->localizedDescription() : QStringLiteral("no video track");
        return nullptr;
    }
    return tracks.front();
}

}  // namespace

VideoInfo readVideo(const QString& path)
{
    VideoInfo info;
    const platform::AssetPtr asset = platform::Asset::assetWithPath(path);
    const auto track = firstVideoTrack(asset, &info.problem);
    if (!track)
        return info;
    info.size = track->naturalSize();
    info.displaySize = shownSize(*track);

    platform::ErrorPtr error;
    const auto reader = platform::AssetReader::create(asset, &error);
    // Counting only: NV12 needs no colour conversion, and pooled buffers no copies.
    const auto output = platform::AssetReaderTrackOutput::create(track, {platform::PixelFormat::NV12VideoRange, 0, 0});
    if (!reader || !output) {
        info.problem = error ? error->localizedDescription() : QStringLiteral("cannot read the video track");
        return info;
    }
    output->setAlwaysCopiesSampleData(false);
    reader->addOutput(output);
    if (!reader->startReading()) {
        info.problem = reader->error() ? reader->error()->localizedDescription() : QStringLiteral("cannot decode");
        return info;
    }
    while (output->copyNextSampleBuffer().isValid())
        ++info.frames;
    if (reader->status() != platform::AssetReader::Status::Completed)
        info.problem = reader->error() ? reader->error()->localizedDescription()
                                       : QStringLiteral("decoding stopped before the end");
    return info;
}

}  // namespace zavo::demo
