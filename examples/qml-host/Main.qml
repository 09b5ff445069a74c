// The whole QML side of a host: a window with the camera screen, started as
// soon as it is made, its outcome handed to the C++ side to print.
import QtQuick
import ZavoCamera

Window {
    id: window

    required property QtObject host

    width: 360
    height: 640
    visible: true
    title: "ZavoCamera"

    CameraScreen {
        anchors.fill: parent
        recordVideo: true

        onBestShot: (image, metadata, videoPath) => window.host.bestShot(metadata.quality, videoPath)
        onFailed: (error, videoPath) => window.host.failed(error.text, videoPath)
        onVideoFinished: (path, error) => window.host.videoFinished(path, error)
        Component.onCompleted: start()
    }
}
