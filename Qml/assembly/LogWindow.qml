import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import QtQuick.Window 2.15
import "."

// The log pane in a window of its own. Lines are kept while it is closed.
Window {
    id: root
    objectName: "logWindow"
    title: "VK Log Window"
    width: 960
    height: 600
    minimumWidth: 640
    minimumHeight: 360
    color: Theme.window

    // The controller whose byte-flow report the switch turns on and off.
    property var manager: null
    readonly property int maxLines: 5000
    readonly property alias lineCount: lines.count
    property bool followTail: true

    function append(kind, msg) {
        if (!msg) return;
        if (lines.count >= maxLines) lines.remove(0, lines.count - maxLines + 1);
        lines.append({ "stamp": Qt.formatTime(new Date(), "hh:mm:ss.zzz"), "kind": kind, "line": String(msg) });
        if (followTail) view.positionViewAtEnd();
    }
    function printInfo(msg) { append("INFO", msg); }
    function printError(msg) { append("ERROR", msg); }
    function printWarning(msg) { append("WARNING", msg); }
    function printBytes(msg) { append("BYTES", msg); }
    function clear() { lines.clear(); }
    function lineAt(i) { return lines.get(i); }

    function colourOf(kind) {
        switch (kind) {
        case "ERROR": return Theme.error;
        case "WARNING": return Theme.warning;
        case "BYTES": return Theme.bytes;
        default: return Theme.text;
        }
    }

    ListModel { id: lines }

    ColumnLayout {
        anchors.fill: parent
        spacing: 0

        Rectangle {
            Layout.fillWidth: true
            Layout.preferredHeight: 48
            color: Theme.panel
            RowLayout {
                anchors.fill: parent
                anchors.leftMargin: Theme.margin
                anchors.rightMargin: Theme.margin
                spacing: 12
                Text {
                    text: "Log"
                    font.family: Theme.fontFamily
                    font.pixelSize: Theme.fontSizeHeading
                    font.bold: true
                    color: Theme.text
                }
                Text {
                    text: lines.count + (lines.count === 1 ? " line" : " lines")
                    font.family: Theme.fontFamily
                    font.pixelSize: Theme.fontSizeSmall
                    color: Theme.textDim
                }
                Item { Layout.fillWidth: true }
                DefaultSwitch {
                    id: bytesSwitch
                    objectName: "bytesFlowSwitch"
                    text: "Show command bytes"
                    onToggled: if (root.manager) root.manager.SetLogBytesFlowStatus(checked)
                }
                DefaultSwitch {
                    text: "Follow"
                    checked: root.followTail
                    onToggled: root.followTail = checked
                }
                DefaultToolButton {
                    text: "Clear"
                    secondary: true
                    onClicked: root.clear()
                }
            }
        }

        Rectangle {
            Layout.fillWidth: true
            Layout.fillHeight: true
            color: Theme.base

            ListView {
                id: view
                anchors.fill: parent
                anchors.margins: 10
                clip: true
                model: lines
                boundsBehavior: Flickable.StopAtBounds
                ScrollBar.vertical: ScrollBar { policy: ScrollBar.AsNeeded }
                delegate: Row {
                    width: view.width - 14
                    spacing: 10
                    Text {
                        text: stamp
                        font.family: Theme.monoFamily
                        font.pixelSize: Theme.fontSizeSmall + 1
                        color: Theme.textFaint
                    }
                    Text {
                        width: 64
                        text: kind
                        font.family: Theme.monoFamily
                        font.pixelSize: Theme.fontSizeSmall + 1
                        font.bold: true
                        color: root.colourOf(kind)
                    }
                    Text {
                        width: parent.width - x
                        text: line
                        wrapMode: Text.WrapAnywhere
                        font.family: kind === "BYTES" ? Theme.monoFamily : Theme.fontFamily
                        font.pixelSize: Theme.fontSize
                        color: kind === "INFO" ? Theme.text : root.colourOf(kind)
                    }
                }
            }
        }
    }
}
