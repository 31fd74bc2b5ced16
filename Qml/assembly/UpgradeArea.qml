import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// Firmware upgrade: pick or drop a package, start the upgrade, follow its progress.
// The page decides what starting means (`startUpgrade`) and which files qualify, so the
// small-sensor page can reuse it with its own call and endings.
Item {
    id: area
    objectName: "upgradeArea"

    property var manager: null
    property string title: "Firmware Upgrade"
    // Accepted file endings, compared without regard to case; the first names the dialog's filter.
    property var acceptedSuffixes: [".patch"]
    property string rejectText: "Upgrade package rejected: it has to be a .patch file"
    property string note: "Keep the power on while upgrading. The lidar will reboot after upgrade."
    property string refusedText: "Upgrade not started: the lidar is not connected, or an upgrade or a log download is running."
    // Called with the file URL; returns the controller's answer (0 started, -1 refused).
    property var startUpgrade: function (url) { return -1; }
    property bool allowed: true
    // false: the bar, the rate and the note show only while an upgrade runs.
    property bool progressAlwaysShown: true

    signal rejected(string message)

    // Progress as last polled; blocks of 1024 bytes.
    property int blocksDone: 0
    property int blocksTotal: 0
    property string fileName: ""
    // Where the rate is measured from: the first poll of this upgrade.
    property double rateStartMs: 0
    property int rateStartBlocks: 0
    property double bytesPerSecond: 0

    readonly property bool upgrading: manager !== null && manager.IsUpgrading
    readonly property real fraction: blocksTotal > 0 ? Math.min(1, blocksDone / blocksTotal) : (blocksDone > 0 ? 1 : 0)
    readonly property bool complete: fraction >= 1
    readonly property string percentText: (fraction * 100).toFixed(2) + "%"

    implicitHeight: column.implicitHeight + 16

    function accepts(url) {
        var name = String(url).toLowerCase();
        for (var k = 0; k < acceptedSuffixes.length; ++k)
            if (name.endsWith(String(acceptedSuffixes[k]).toLowerCase())) return true;
        return false;
    }

    // The one road from the dialog and the drop area to the controller.
    function submit(url) {
        if (!accepts(url)) {
            rejected(rejectText);
            return false;
        }
        var text = decodeURIComponent(String(url));
        fileName = text.substring(text.lastIndexOf("/") + 1);
        blocksDone = 0;
        blocksTotal = 0;
        bytesPerSecond = 0;
        rateStartMs = 0;
        if (startUpgrade(url) !== 0) {
            rejected(refusedText);
            return false;
        }
        return true;
    }

    function poll() {
        if (manager === null) return;
        blocksDone = manager.upgradeProgress;
        blocksTotal = manager.upgradeProgressTotalLen;
        var now = Date.now();
        if (rateStartMs === 0) {
            rateStartMs = now;
            rateStartBlocks = blocksDone;
        } else if (now > rateStartMs) {
            bytesPerSecond = (blocksDone - rateStartBlocks) * 1024 * 1000 / (now - rateStartMs);
        }
    }

    function rateText() {
        if (bytesPerSecond <= 0) return "";
        return bytesPerSecond >= 1048576 ? (bytesPerSecond / 1048576).toFixed(2) + " MiB/s"
                                         : (bytesPerSecond / 1024).toFixed(1) + " KiB/s";
    }

    function remainingText() {
        if (!upgrading || bytesPerSecond <= 0 || complete) return "";
        var s = Math.ceil(Math.max(0, blocksTotal - blocksDone) * 1024 / bytesPerSecond);
        var m = Math.floor(s / 60);
        return m + ":" + ("0" + (s % 60)).slice(-2) + " left";
    }

    Timer {
        id: pollTimer
        interval: 500
        repeat: true
        running: area.upgrading
        triggeredOnStart: true
        onTriggered: area.poll()
    }

    Connections {
        target: area.manager
        // One last look when it ends, so the bar shows where the transfer stopped.
        function onIsUpgradingChanged() {
            if (!area.manager.IsUpgrading) area.poll();
        }
    }

    // Made on first use, as the window's other file dialogs.
    Loader {
        id: dialog
        active: false
        sourceComponent: DocumentsFileDialog {
            title: "Choose an upgrade package"
            selectMultiple: false
            nameFilters: ["Upgrade packages (*" + area.acceptedSuffixes.join(" *") + ")"]
            onAccepted: area.submit(fileUrl)
        }
        function open() {
            active = true;
            item.open();
        }
    }

    ColumnLayout {
        id: column
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.top: parent.top
        anchors.topMargin: 8
        spacing: 10

        RowLayout {
            Layout.fillWidth: true
            spacing: 12
            Text {
                text: area.title
                font.family: Theme.fontFamily
                font.pixelSize: Theme.fontSize
                color: Theme.textDim
                Layout.fillWidth: true
            }
            DefaultToolButton {
                objectName: "attachFileButton"
                text: "Attach File"
                enabled: area.allowed && !area.upgrading
                onClicked: dialog.open()
            }
        }

        Rectangle {
            id: dropZone
            objectName: "upgradeDropZone"
            Layout.fillWidth: true
            Layout.preferredHeight: 90
            radius: Theme.radius
            color: drop.containsDrag ? Theme.surfaceHover : Theme.field
            border.width: 1
            border.color: drop.containsDrag ? Theme.accent : Theme.midlight

            Text {
                anchors.centerIn: parent
                text: area.fileName !== "" ? area.fileName : "Click to Upload or Drop Files Here"
                font.family: Theme.fontFamily
                font.pixelSize: Theme.fontSize
                color: Theme.textDim
            }
            MouseArea {
                anchors.fill: parent
                enabled: area.allowed && !area.upgrading
                cursorShape: Qt.PointingHandCursor
                onClicked: dialog.open()
            }
            DropArea {
                id: drop
                objectName: "upgradeDropArea"
                anchors.fill: parent
                enabled: area.allowed && !area.upgrading
                onDropped: {
                    if (!drop.hasUrls || drop.urls.length === 0) return;
                    area.submit(drop.urls[0]);
                    drop.accept();
                }
            }
        }

        RowLayout {
            objectName: "upgradeProgressRow"
            Layout.fillWidth: true
            spacing: 12
            visible: area.progressAlwaysShown || area.upgrading
            ProgressBar {
                id: bar
                objectName: "upgradeProgressBar"
                Layout.fillWidth: true
                from: 0
                to: 1
                value: area.fraction
                background: Rectangle {
                    implicitHeight: 10
                    radius: 5
                    color: Theme.surface
                }
                contentItem: Item {
                    implicitHeight: 10
                    Rectangle {
                        width: bar.visualPosition * parent.width
                        height: parent.height
                        radius: 5
                        color: area.complete ? Theme.progressDone : Theme.progress
                    }
                }
            }
            Text {
                objectName: "upgradePercent"
                text: area.percentText
                font.family: Theme.fontFamily
                font.pixelSize: Theme.fontSize
                color: Theme.text
                Layout.preferredWidth: 64
                horizontalAlignment: Text.AlignRight
            }
        }

        Text {
            objectName: "upgradeRate"
            text: [area.rateText(), area.remainingText()].filter(function (t) { return t !== ""; }).join("  ·  ")
            visible: text !== "" && (area.progressAlwaysShown || area.upgrading)
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSizeSmall
            color: Theme.textDim
        }

        Text {
            objectName: "upgradeNote"
            text: area.note
            visible: area.progressAlwaysShown || area.upgrading
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSizeSmall
            color: Theme.warning
        }
    }
}
