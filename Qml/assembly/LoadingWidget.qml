import QtQuick 2.15
import QtQuick.Controls 2.15
import "."

// A dimmed cover with a spinner, swallowing clicks while something runs.
Rectangle {
    id: root
    property alias text: label.text
    color: "#99000000"
    visible: false

    MouseArea {
        anchors.fill: parent
        hoverEnabled: true
        acceptedButtons: Qt.AllButtons
        onWheel: wheel.accepted = true
    }

    Rectangle {
        anchors.centerIn: parent
        width: 260
        height: 120
        radius: 6
        color: Theme.panel
        border.color: Theme.midlight

        Column {
            anchors.centerIn: parent
            spacing: 14
            BusyIndicator {
                anchors.horizontalCenter: parent.horizontalCenter
                running: root.visible
                width: 40
                height: 40
            }
            Text {
                id: label
                anchors.horizontalCenter: parent.horizontalCenter
                text: "Please wait..."
                font.family: Theme.fontFamily
                font.pixelSize: Theme.fontSize
                color: Theme.text
            }
        }
    }
}
