import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// A question with a confirming button; with "OK" it is a plain message without Cancel.
Popup {
    id: root
    objectName: "messageWindow"
    property string message: ""
    property string buttonText: "OK"
    readonly property bool asks: buttonText !== "OK"
    signal confirmed()

    function ask(msg, btnText) {
        message = msg;
        buttonText = btnText;
        open();
    }

    parent: Overlay.overlay
    anchors.centerIn: parent
    width: 480
    modal: true
    focus: true
    closePolicy: Popup.CloseOnEscape
    padding: 20

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
            color: root.asks ? Theme.warning : Theme.accent
        }
    }

    contentItem: ColumnLayout {
        spacing: 14
        Text {
            text: root.asks ? "Please confirm" : "Message"
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSizeHeading
            font.bold: true
            color: Theme.text
        }
        Text {
            objectName: "messageText"
            text: root.message
            wrapMode: Text.Wrap
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSize
            color: Theme.text
            lineHeight: 1.2
            Layout.fillWidth: true
            Layout.preferredWidth: 440
        }
        RowLayout {
            Layout.alignment: Qt.AlignRight
            spacing: Theme.spacing
            DefaultToolButton {
                text: "Cancel"
                secondary: true
                visible: root.asks
                onClicked: root.close()
            }
            DefaultToolButton {
                objectName: "messageConfirmButton"
                text: root.buttonText
                onClicked: {
                    root.close();
                    if (root.asks) root.confirmed();
                }
            }
        }
    }
}
