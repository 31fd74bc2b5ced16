import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// A modal notice with one button. Notices that arrive while one is open wait their turn.
Popup {
    id: root
    property string title: ""
    property string glyph: "!"
    property color accentColor: Theme.accent
    property string message: ""
    property var pending: []

    function show(msg) {
        if (!msg) return;
        if (visible) {
            pending.push(msg);
            return;
        }
        message = msg;
        open();
    }

    parent: Overlay.overlay
    anchors.centerIn: parent
    width: 460
    modal: true
    focus: true
    closePolicy: Popup.CloseOnEscape
    padding: 20

    onClosed: {
        if (pending.length > 0) {
            var next = pending.shift();
            Qt.callLater(function () { root.show(next); });
        }
    }

    Overlay.modal: Rectangle { color: "#A0000000" }

    background: Rectangle {
        color: Theme.panel
        radius: 6
        border.color: Theme.midlight
        Rectangle {
            anchors.left: parent.left
            anchors.right: parent.right
            anchors.top: parent.top
            height: 3
            radius: 2
            color: root.accentColor
        }
    }

    contentItem: ColumnLayout {
        spacing: 14

        RowLayout {
            spacing: 10
            Rectangle {
                width: 26
                height: 26
                radius: 13
                color: root.accentColor
                Text {
                    anchors.centerIn: parent
                    text: root.glyph
                    font.family: Theme.fontFamily
                    font.pixelSize: 15
                    font.bold: true
                    color: Theme.panel
                }
            }
            Text {
                text: root.title
                font.family: Theme.fontFamily
                font.pixelSize: Theme.fontSizeHeading
                font.bold: true
                color: Theme.text
                Layout.fillWidth: true
            }
        }
        Text {
            objectName: "noticeText"
            text: root.message
            wrapMode: Text.Wrap
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSize
            color: Theme.text
            lineHeight: 1.2
            Layout.fillWidth: true
            Layout.preferredWidth: 420
        }
        DefaultToolButton {
            text: "OK"
            Layout.alignment: Qt.AlignRight
            onClicked: root.close()
        }
    }
}
