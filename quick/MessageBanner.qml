// The banner that tells the user what keeps the shot from being taken: a
// warning icon and a wrapping message on a translucent dark rounded card,
// inset 10 points, as on the widget screen. Hidden while there is no message.
import QtQuick

Item {
    id: banner

    property string message
    property font font: Qt.application.font

    readonly property real sideOffset: 10
    visible: message !== ""
    height: visible ? card.height + 2 * sideOffset : 0

    Accessible.role: Accessible.AlertMessage
    Accessible.name: qsTranslate("ZMCameraViewController", "Message")
    Accessible.description: message

    Rectangle {
        id: card
        x: banner.sideOffset
        y: banner.sideOffset
        width: banner.width - 2 * banner.sideOffset
        height: label.height + 2 * banner.sideOffset
        radius: 5
        color: Qt.rgba(0, 0, 0, 0.3)

        Image {
            id: icon
            x: banner.sideOffset
            anchors.verticalCenter: parent.verticalCenter
            // Drawn at twice its size in points.
            width: 24
            height: 24
            source: "image://zavocamera/warning_icon"
            sourceSize: Qt.size(48, 48)
            smooth: true
        }

        Text {
            id: label
            objectName: "notificationLabel"
            x: icon.x + icon.width + banner.sideOffset
            y: banner.sideOffset
            width: card.width - x - banner.sideOffset
            text: banner.message
            // Messages are plain text: a "<" in one is not markup.
            textFormat: Text.PlainText
            wrapMode: Text.WordWrap
            color: "white"
            font: banner.font
        }
    }
}
