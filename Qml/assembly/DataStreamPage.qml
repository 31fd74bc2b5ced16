import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// The Data Stream page: whether the point data reaches this machine, and if not, why.
// Everything it shows comes from `model` (the controller's streamMonitor). It listens
// only while shown, so the data port is free for other programs the rest of the time.
Item {
    id: page
    property var model: null
    property bool connected: false
    readonly property bool listening: model ? model.listening : false

    onVisibleChanged: if (model) visible ? model.Start() : model.Stop()
    // The port to listen on follows the sensor's "Data Port" once connected.
    onConnectedChanged: if (model && visible) model.Start()

    Flickable {
        anchors.fill: parent
        contentHeight: column.implicitHeight + 2 * Theme.margin
        clip: true

        Column {
            id: column
            x: Theme.margin + 8
            y: Theme.margin
            width: Math.max(560, Math.round(page.width * 0.6))
            spacing: 8

            Text {
                text: "Data Stream"
                font.family: Theme.fontFamily
                font.pixelSize: Theme.fontSizeHeading + 3
                font.bold: true
                color: Theme.text
                bottomPadding: 4
            }
            Row {
                spacing: 8
                DefaultToolButton {
                    objectName: "streamListenButton"
                    text: page.listening ? "Listen again" : "Listen"
                    onClicked: page.model.Start()
                }
                DefaultToolButton {
                    objectName: "streamStopButton"
                    secondary: true
                    text: "Stop"
                    enabled: page.listening
                    onClicked: page.model.Stop()
                }
                DefaultToolButton {
                    objectName: "streamRecordButton"
                    secondary: true
                    enabled: page.listening
                    text: page.model && page.model.recording ? "Stop recording" : "Record..."
                    onClicked: page.model.recording ? page.model.StopRecording() : recordDialog.open()
                }
            }
            Text {
                width: parent.width
                visible: text !== ""
                text: page.model ? page.model.error : ""
                wrapMode: Text.Wrap
                font.family: Theme.fontFamily
                font.pixelSize: Theme.fontSize
                color: Theme.error
            }
            Repeater {
                model: page.model ? page.model.figures : []
                delegate: StreamFigureRow {
                    width: column.width
                    label: modelData[0]
                    value: modelData[1]
                }
            }
            Text {
                visible: page.model && page.model.senders.length > 0
                text: "Senders"
                topPadding: 6
                font.family: Theme.fontFamily
                font.pixelSize: Theme.fontSize
                font.bold: true
                color: Theme.text
            }
            Repeater {
                model: page.model ? page.model.senders : []
                delegate: StreamFigureRow {
                    width: column.width
                    label: modelData[0]
                    value: modelData[1] + " datagrams (" + modelData[2] + ")"
                }
            }
            Text {
                width: parent.width
                visible: text !== ""
                text: page.model ? page.model.recordingText : ""
                wrapMode: Text.Wrap
                font.family: Theme.fontFamily
                font.pixelSize: Theme.fontSize
                color: Theme.textDim
            }
            Repeater {
                model: page.model ? page.model.diagnosis : []
                delegate: Text {
                    objectName: "streamDiagnosisLine"
                    width: column.width
                    text: modelData
                    wrapMode: Text.Wrap
                    font.family: Theme.fontFamily
                    font.pixelSize: Theme.fontSize
                    color: Theme.warning
                }
            }
            DefaultToolButton {
                objectName: "streamSendHereButton"
                visible: page.model && page.model.sendHereQuestion !== ""
                text: "Send data here"
                onClicked: confirm.ask(page.model.sendHereQuestion, "Send data here")
            }
        }
    }

    // Made only while asking: its controls then never stand beside those of the window's
    // own question.
    Loader {
        id: confirm
        active: false
        sourceComponent: MessageWindow {
            objectName: "streamSendHereConfirm"
            onConfirmed: page.model.SendDataHere()
            onClosed: Qt.callLater(function () { confirm.active = false; })
        }
        function ask(message, button) {
            active = true;
            item.ask(message, button);
        }
    }

    // Made on first use, as the window's other file dialogs are.
    Loader {
        id: recordDialog
        active: false
        sourceComponent: DocumentsFileDialog {
            title: "Record the data stream"
            selectExisting: false
            nameFilters: ["Capture files (*.pcap)", "All files (*)"]
            onAccepted: page.model.StartRecording(fileUrl)
        }
        function open() {
            active = true;
            item.open();
        }
    }
}
