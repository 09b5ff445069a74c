// What the camera screen draws over its preview: the face frame, the banner,
// the busy bar and the close button, placed and coloured as on the widget
// screen. Everything shown is read from `screen`, the CameraScreen item this
// overlay belongs to.
import QtQuick

Item {
    id: overlay

    property Item screen
    anchors.fill: parent

    // The detector's face frame: green on a good face, red otherwise; a
    // one-point border inside its bounds with rounded corners.
    Rectangle {
        objectName: "faceFrame"
        visible: overlay.screen && overlay.screen.faceVisible
        x: overlay.screen ? overlay.screen.faceRect.x : 0
        y: overlay.screen ? overlay.screen.faceRect.y : 0
        width: overlay.screen ? overlay.screen.faceRect.width : 0
        height: overlay.screen ? overlay.screen.faceRect.height : 0
        color: "transparent"
        radius: 8
        border.width: 1
        border.color: overlay.screen && overlay.screen.faceGood ? "#00ff00" : "#ff0000"
    }

    // Shown while the face is checked or the video is saved.
    Rectangle {
        objectName: "livenessActivity"
        visible: overlay.screen && overlay.screen.livenessActive
        anchors.centerIn: parent
        width: 120
        height: 8
        radius: 4
        color: Qt.rgba(1, 1, 1, 0.25)
        clip: true
        Accessible.role: Accessible.ProgressBar
        Accessible.name: qsTranslate("ZMCameraViewController", "Working")

        Rectangle {
            width: 40
            height: parent.height
            radius: parent.radius
            color: "white"
            SequentialAnimation on x {
                running: parent.visible
                loops: Animation.Infinite
                NumberAnimation { from: -40; to: 120; duration: 900; easing.type: Easing.InOutQuad }
            }
        }
    }

    MessageBanner {
        objectName: "banner"
        // Under the close button, across the whole width.
        y: closeButton.y + closeButton.height
        width: parent.width
        message: overlay.screen ? overlay.screen.message : ""
        font: overlay.screen ? overlay.screen.messageFont : Qt.application.font
    }

    // The close button: the component's close image in white, 44 points
    // square, 10 from the top and right edges.
    Item {
        id: closeButton
        objectName: "closeButton"
        x: parent.width - 10 - width
        y: 10
        width: 44
        height: 44
        Accessible.role: Accessible.Button
        Accessible.name: qsTranslate("ZMCameraViewController", "Close")
        Accessible.description: qsTranslate("ZMCameraViewController", "Stops the camera without taking a photo")
        Accessible.onPressAction: overlay.screen.cancel()

        Image {
            anchors.fill: parent
            source: "image://zavocamera/close/white"
            sourceSize: Qt.size(88, 88)
            smooth: true
        }
        TapHandler {
            onTapped: overlay.screen.cancel()
        }
    }
}
