import QtQuick 2.15
import QtQuick.Controls 2.15
import "."

// One row of the log page: a log's name, a spinner while its download runs, and the
// button that starts it.
Item {
    id: row
    property string label: ""
    property string buttonText: "Download"
    // This row's download is the one running.
    property bool busy: false
    property bool canStart: true
    signal triggered()

    height: Theme.rowHeight + 8

    Text {
        anchors.verticalCenter: parent.verticalCenter
        text: row.label
        font.family: Theme.fontFamily
        font.pixelSize: Theme.fontSize
        color: Theme.textDim
    }
    Row {
        anchors.verticalCenter: parent.verticalCenter
        x: Math.round(parent.width * 0.38) + 16
        spacing: 8
        BusyIndicator {
            objectName: "busyIndicator"
            anchors.verticalCenter: parent.verticalCenter
            width: 24
            height: 24
            running: row.busy
            visible: row.busy
        }
        Text {
            anchors.verticalCenter: parent.verticalCenter
            visible: row.busy
            text: "Downloading..."
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSize
            color: Theme.text
        }
    }
    DefaultToolButton {
        objectName: "downloadButton"
        anchors.right: parent.right
        anchors.verticalCenter: parent.verticalCenter
        text: row.buttonText
        enabled: row.canStart
        onClicked: row.triggered()
    }
    Rectangle {
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        height: 1
        color: Theme.divider
    }
}
