import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// The raw command console: a command code and payload typed as hexadecimal, the reply's
// header and payload, and the last sends. The controller parses, sends and formats; this
// page only passes the texts on and shows what comes back.
Item {
    id: page
    objectName: "commandPage"
    property var manager: null
    property bool connected: manager ? manager.IsConnected : false

    readonly property var history: manager ? manager.SendCommandHistory : []
    readonly property int timeColumnWidth: 170
    readonly property int codeColumnWidth: 130

    function send() {
        if (!manager || !connected) return;
        manager.SendCommand(codeField.text, payloadField.text);
    }

    // Puts a sent command back into the fields, to send it again or change it.
    function recall(index) {
        if (index < 0 || index >= history.length) return;
        codeField.text = String(history[index].send_cmd_history);
        payloadField.text = String(history[index].send_payload_history);
    }

    ColumnLayout {
        x: Theme.margin + 8
        y: Theme.margin
        width: Math.max(640, Math.round(page.width * 0.7))
        height: page.height - 2 * Theme.margin
        spacing: 10

        Text {
            text: "Send Command"
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSizeHeading + 3
            font.bold: true
            color: Theme.text
        }

        RowLayout {
            spacing: Theme.spacing
            Layout.fillWidth: true
            FieldLabel { text: "Command Code" }
            DefaultTextField {
                id: codeField
                objectName: "commandCodeField"
                Layout.preferredWidth: 110
                placeholderText: "0x07"
                onAccepted: page.send()
            }
            FieldLabel {
                text: "Payload"
                Layout.leftMargin: 10
            }
            DefaultTextField {
                id: payloadField
                objectName: "commandPayloadField"
                Layout.fillWidth: true
                placeholderText: "bytes in hexadecimal, separated by blanks: 0x01 02 0A"
                onAccepted: page.send()
            }
            DefaultToolButton {
                objectName: "commandSendButton"
                text: "Send"
                enabled: page.connected
                onClicked: page.send()
            }
        }

        SectionTitle { text: "Return" }

        GridLayout {
            columns: 2
            columnSpacing: 12
            rowSpacing: 6
            Layout.fillWidth: true

            FieldLabel { text: "Header"; Layout.alignment: Qt.AlignTop; Layout.topMargin: 6 }
            HexBox {
                objectName: "returnHeaderText"
                text: page.manager ? page.manager.SendKtcCommandReturnHeader : ""
                Layout.fillWidth: true
                Layout.preferredHeight: Theme.controlHeight
            }
            FieldLabel { text: "Payload"; Layout.alignment: Qt.AlignTop; Layout.topMargin: 6 }
            HexBox {
                objectName: "returnPayloadText"
                text: page.manager ? page.manager.SendKtcCommandReturnPayload : ""
                Layout.fillWidth: true
                Layout.preferredHeight: 96
            }
        }

        SectionTitle { text: "Command Log" }

        Rectangle {
            Layout.fillWidth: true
            Layout.fillHeight: true
            Layout.minimumHeight: 120
            color: Theme.field
            radius: Theme.radius
            border.width: 1
            border.color: Theme.midlight
            clip: true

            ListView {
                id: historyView
                objectName: "commandHistoryView"
                anchors.fill: parent
                anchors.margins: 1
                model: page.history
                boundsBehavior: Flickable.StopAtBounds
                headerPositioning: ListView.OverlayHeader
                ScrollBar.vertical: ScrollBar { policy: ScrollBar.AsNeeded }

                header: Rectangle {
                    z: 2
                    width: historyView.width
                    height: 28
                    color: Theme.surface
                    Row {
                        anchors.fill: parent
                        anchors.leftMargin: 10
                        HistoryCell { width: page.timeColumnWidth; text: "Time"; heading: true }
                        HistoryCell { width: page.codeColumnWidth; text: "Command Code"; heading: true }
                        HistoryCell { width: parent.width - page.timeColumnWidth - page.codeColumnWidth; text: "Payload"; heading: true }
                    }
                }

                delegate: Rectangle {
                    objectName: "historyRow_" + index
                    width: historyView.width
                    height: 28
                    color: rowArea.containsMouse ? Theme.surfaceHover : index % 2 ? Theme.window : "transparent"
                    readonly property string codeText: String(modelData.send_cmd_history)
                    readonly property string payloadText: String(modelData.send_payload_history)
                    Row {
                        anchors.fill: parent
                        anchors.leftMargin: 10
                        HistoryCell { width: page.timeColumnWidth; text: String(modelData.record_time) }
                        HistoryCell { width: page.codeColumnWidth; text: codeText; mono: true }
                        HistoryCell { width: parent.width - page.timeColumnWidth - page.codeColumnWidth; text: payloadText; mono: true }
                    }
                    MouseArea {
                        id: rowArea
                        anchors.fill: parent
                        hoverEnabled: true
                        cursorShape: Qt.PointingHandCursor
                        onClicked: page.recall(index)
                    }
                }

                Text {
                    anchors.centerIn: parent
                    visible: historyView.count === 0
                    text: "No command sent yet."
                    font.family: Theme.fontFamily
                    font.pixelSize: Theme.fontSize
                    color: Theme.textFaint
                }
            }
        }
    }

    component SectionTitle: Text {
        font.family: Theme.fontFamily
        font.pixelSize: Theme.fontSizeHeading
        font.bold: true
        color: Theme.text
        topPadding: 6
    }

    // A read-only, selectable box for hexadecimal text, scrolling when it is long.
    component HexBox: ScrollView {
        id: box
        property alias text: area.text
        clip: true
        background: Rectangle {
            radius: Theme.radius
            color: Theme.field
            border.width: 1
            border.color: Theme.midlight
        }
        TextArea {
            id: area
            readOnly: true
            selectByMouse: true
            wrapMode: TextEdit.Wrap
            font.family: Theme.monoFamily
            font.pixelSize: Theme.fontSize
            color: Theme.text
            selectionColor: Theme.accent
            leftPadding: 8
            topPadding: 6
            background: null
        }
    }

    component HistoryCell: Text {
        property bool heading: false
        property bool mono: false
        height: 28
        verticalAlignment: Text.AlignVCenter
        elide: Text.ElideRight
        rightPadding: 8
        font.family: mono ? Theme.monoFamily : Theme.fontFamily
        font.pixelSize: heading ? Theme.fontSizeSmall + 1 : Theme.fontSize
        font.bold: heading
        color: heading ? Theme.textDim : Theme.text
    }
}
