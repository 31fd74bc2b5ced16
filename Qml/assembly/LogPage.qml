import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// The Log page: opens the log window and downloads the logs the lidar keeps.
Item {
    id: page
    property int connectType: 0
    property bool hasOperationLog: false
    property bool canDownloadLogs: false
    property bool lineIdle: false
    property string activeLogDownload: ""
    property int logLineCount: 0
    signal openLogRequested
    signal operationLogRequested
    signal logRequested(string name)

    Column {
        x: Theme.margin + 8
        y: Theme.margin
        width: Math.max(560, Math.round(parent.width * 0.6))
        spacing: 0

        Text {
            text: "Log"
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSizeHeading + 3
            font.bold: true
            color: Theme.text
            bottomPadding: 10
        }
        Item {
            width: parent.width
            height: Theme.rowHeight + 8
            Text {
                anchors.verticalCenter: parent.verticalCenter
                text: "VK Log Window"
                font.family: Theme.fontFamily
                font.pixelSize: Theme.fontSize
                color: Theme.textDim
            }
            Text {
                anchors.verticalCenter: parent.verticalCenter
                x: Math.round(parent.width * 0.38) + 16
                text: page.logLineCount + (page.logLineCount === 1 ? " line" : " lines")
                font.family: Theme.fontFamily
                font.pixelSize: Theme.fontSize
                color: Theme.text
            }
            DefaultToolButton {
                objectName: "openLogButton"
                anchors.right: parent.right
                anchors.verticalCenter: parent.verticalCenter
                text: "Open"
                onClicked: page.openLogRequested()
            }
            Rectangle {
                anchors.left: parent.left
                anchors.right: parent.right
                anchors.bottom: parent.bottom
                height: 1
                color: Theme.divider
            }
        }
        LogDownloadRow {
            objectName: "logRow_Operation Log"
            width: parent.width
            visible: page.connectType === 0 && page.hasOperationLog
            label: "Operation Log"
            busy: varkel_manager.IsDownloadLog && page.activeLogDownload === label
            canStart: page.canDownloadLogs && page.lineIdle
            onTriggered: page.operationLogRequested()
        }
        Repeater {
            model: page.connectType === 0 ? varkel_manager.logRepeaterModel : []
            delegate: LogDownloadRow {
                objectName: "logRow_" + label
                width: parent.width
                label: String(modelData)
                busy: varkel_manager.IsDownloadLog && page.activeLogDownload === label
                canStart: page.canDownloadLogs && page.lineIdle
                onTriggered: page.logRequested(label)
            }
        }
    }
}

