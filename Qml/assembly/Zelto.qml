import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// The page of the small serial sensors, shown instead of the table pages for connection
// types 1 and 2. Every action is one call of the controller; nothing here knows the wire.
Item {
    id: page
    objectName: "zeltoPage"
    property var manager: null
    property string selectedModel: ""
    signal openLogRequested()
    // A line for the log pane (the main window's printLog).
    signal logRequested(string message, string type)

    readonly property bool networkModel: selectedModel === "Zelto-KTC" || selectedModel === "Marvo-KTC"
    readonly property bool marvo: selectedModel === "Marvo-KTC"
    readonly property bool connected: manager ? manager.IsConnected : false
    readonly property var infoLabels: ["IP Address", "Serial Number", "Baud Rate", "Fault State"]
    readonly property int columnWidth: Math.max(620, Math.round(width * 0.6))
    readonly property int labelWidth: 190
    // The upgrade choices: the Marvo's own lidar image, or its junction box; the Zelto's
    // application with FPGA, or the bootloader.
    readonly property var upgradeModes: marvo ? ["Lidar", "Junction Box"] : ["APP+FPGA", "PBL"]

    // The controller's mode for an entry of the combo: "Junction Box" is mode 2.
    function upgradeModeValue(index) {
        return marvo && index === 1 ? 2 : index;
    }

    // Where a package goes: the Marvo's component package, or the Zelto transfer.
    function startUpgrade(url) {
        if (marvo && upgradeMode.currentIndex === 0) return manager.MarvoUpgradeLidar(url);
        return manager.ZeltoUpgradeLidar(url);
    }

    // What the destination fields show for a read's result.
    function destinationTexts(result) {
        return result && result.length >= 2 ? [String(result[0]), String(result[1])] : ["xx.xx.xx.xx", "xx"];
    }

    function refreshDestination() {
        if (!manager || !networkModel || !manager.IsConnected) {
            destinationIp.text = "";
            destinationPort.text = "";
            return;
        }
        var texts = destinationTexts(manager.ZeltoGetDestinationConfig(true));
        destinationIp.text = texts[0];
        destinationPort.text = texts[1];
    }

    // The fault codes after the state text, or "None" when the answer has none.
    function faultCodeList(result) {
        return result.length > 1 ? result.slice(1) : ["None"];
    }

    function readFunctionSafety() {
        var result = manager.ZeltoGetLidarFunctionSafety();
        if (!result || result.length === 0) return;
        faultState.text = result[0];
        faultCodes.model = faultCodeList(result);
    }

    onSelectedModelChanged: refreshDestination()
    Connections {
        target: page.manager
        function onIsConnectedChanged() { page.refreshDestination(); }
        function onConnectTypeChanged() { page.refreshDestination(); }
    }

    // Made on first use: the dialog brings its own settings store, which the page does not
    // need until the user downloads.
    Loader {
        id: correctionFolder
        active: false
        sourceComponent: DocumentsFileDialog {
            title: "Folder for the calibration file"
            selectFolder: true
            // fileUrl is the chosen folder; folder is only where the dialog was browsing.
            onAccepted: page.manager.ZeltoGetCorrection(String(fileUrl) + "/" + page.selectedModel + "_correction.bin")
        }
        onLoaded: item.open()
    }

    component SectionTitle: Text {
        font.family: Theme.fontFamily
        font.pixelSize: Theme.fontSizeHeading + 3
        font.bold: true
        color: Theme.text
        topPadding: 18
        bottomPadding: 8
    }

    component RowLabel: Text {
        Layout.preferredWidth: page.labelWidth
        font.family: Theme.fontFamily
        font.pixelSize: Theme.fontSize
        color: Theme.textDim
        elide: Text.ElideRight
    }

    // An action that talks to the sensor: offered only while one is connected.
    component SensorButton: DefaultToolButton {
        enabled: page.connected
    }

    component Row_: RowLayout {
        width: body.width
        height: Theme.rowHeight + 6
        spacing: 10
    }

    Flickable {
        anchors.fill: parent
        contentWidth: width
        contentHeight: body.implicitHeight + 2 * Theme.margin
        clip: true
        boundsBehavior: Flickable.StopAtBounds
        ScrollBar.vertical: ScrollBar { policy: ScrollBar.AsNeeded }

        Column {
            id: body
            x: Theme.margin + 8
            y: Theme.margin
            width: page.columnWidth

            // 1. Lidar Info
            SectionTitle { objectName: "sectionLidarInfo"; text: "Lidar Info"; topPadding: 0 }
            Repeater {
                objectName: "lidarInfoRows"
                model: page.manager ? page.manager.ZeltoLidarInfo : []
                delegate: Row_ {
                    RowLabel { text: index < page.infoLabels.length ? page.infoLabels[index] : "" }
                    Text {
                        objectName: "lidarInfo_" + index
                        Layout.fillWidth: true
                        text: String(modelData)
                        font.family: Theme.fontFamily
                        font.pixelSize: Theme.fontSize
                        color: Theme.text
                    }
                }
            }

            // 2. Lidar Function
            SectionTitle { objectName: "sectionLidarFunction"; text: "Lidar Function" }
            Row_ {
                objectName: "rowBaudRate"
                RowLabel { text: "Baud Rate" }
                DefaultTextField {
                    id: baudRate
                    objectName: "baudRateField"
                    Layout.preferredWidth: 180
                    validator: RegularExpressionValidator { regularExpression: /[0-9]*/ }
                }
                SensorButton {
                    text: "Get"
                    secondary: true
                    onClicked: {
                        var rate = page.manager.ZeltoGetBaudRate();
                        if (rate !== "") baudRate.text = rate;
                    }
                }
                SensorButton {
                    text: "Save"
                    onClicked: if (baudRate.text !== "") page.manager.ZeltoSetBaudRateFromUI(baudRate.text)
                }
                Item { Layout.fillWidth: true }
            }
            Row_ {
                objectName: "rowStandby"
                RowLabel { text: "Standby Mode" }
                DefaultComboBox { id: standby; Layout.preferredWidth: 180; model: ["In Operation", "Standby"] }
                SensorButton { text: "Save"; onClicked: page.manager.ZeltoSetStandby(standby.currentIndex) }
                Item { Layout.fillWidth: true }
            }
            Row_ {
                objectName: "rowSpinRate"
                RowLabel { text: "Spin Rate" }
                DefaultComboBox { id: spinRate; Layout.preferredWidth: 180; model: ["5hz", "10hz"] }
                SensorButton { text: "Save"; onClicked: page.manager.ZeltoSetSpinRate(spinRate.currentIndex) }
                Item { Layout.fillWidth: true }
            }
            Row_ {
                objectName: "rowReturnMode"
                RowLabel { text: "Return Mode" }
                DefaultComboBox { id: returnMode; Layout.preferredWidth: 180; model: ["Strongest", "Last"] }
                SensorButton { text: "Save"; onClicked: page.manager.ZeltoSetReturnMode(returnMode.currentIndex) }
                Item { Layout.fillWidth: true }
            }
            Row_ {
                objectName: "rowImuRange"
                visible: page.marvo
                RowLabel { text: "IMU Range" }
                DefaultComboBox {
                    id: imuAngular
                    Layout.preferredWidth: 150
                    model: ["\u00b12000 dps", "\u00b11000 dps", "\u00b1500 dps", "\u00b1250 dps", "\u00b1125 dps",
                        "\u00b14000 dps"]
                }
                DefaultComboBox {
                    id: imuAccel
                    Layout.preferredWidth: 110
                    model: ["\u00b116g", "\u00b18g", "\u00b14g", "\u00b12g"]
                }
                SensorButton {
                    text: "Save"
                    onClicked: page.manager.MarvoSetIMURange(imuAngular.currentIndex, imuAccel.currentIndex)
                }
                Item { Layout.fillWidth: true }
            }
            Row_ {
                objectName: "rowCalibration"
                RowLabel { text: "Lidar Calibration File" }
                SensorButton {
                    objectName: "calibrationDownloadButton"
                    text: "Download"
                    onClicked: {
                        if (correctionFolder.active) correctionFolder.item.open();
                        else correctionFolder.active = true;
                    }
                }
                Item { Layout.fillWidth: true }
            }
            Row_ {
                objectName: "rowFunctionSafety"
                RowLabel { text: "Function Safety" }
                Text {
                    text: "Fault State"
                    font.family: Theme.fontFamily
                    font.pixelSize: Theme.fontSizeSmall + 1
                    color: Theme.textDim
                }
                Text {
                    id: faultState
                    objectName: "faultStateText"
                    Layout.preferredWidth: 80
                    text: "Normal"
                    font.family: Theme.fontFamily
                    font.pixelSize: Theme.fontSize
                    color: Theme.text
                }
                Text {
                    text: "Fault Code"
                    font.family: Theme.fontFamily
                    font.pixelSize: Theme.fontSizeSmall + 1
                    color: Theme.textDim
                }
                DefaultComboBox {
                    id: faultCodes
                    objectName: "faultCodeCombo"
                    Layout.preferredWidth: 120
                    model: ["None"]
                }
                SensorButton { text: "Get"; secondary: true; onClicked: page.readFunctionSafety() }
                Item { Layout.fillWidth: true }
            }
            Row_ {
                objectName: "rowDestination"
                visible: page.networkModel
                RowLabel { text: "Destination" }
                Text {
                    text: "Destination IP"
                    font.family: Theme.fontFamily
                    font.pixelSize: Theme.fontSizeSmall + 1
                    color: Theme.textDim
                }
                DefaultTextField { id: destinationIp; objectName: "destinationIpField"; Layout.preferredWidth: 150 }
                Text {
                    text: "UDP Port"
                    font.family: Theme.fontFamily
                    font.pixelSize: Theme.fontSizeSmall + 1
                    color: Theme.textDim
                }
                DefaultTextField {
                    id: destinationPort
                    objectName: "destinationPortField"
                    Layout.preferredWidth: 80
                    validator: RegularExpressionValidator { regularExpression: /[0-9]*/ }
                }
                SensorButton {
                    text: "Save"
                    onClicked: page.manager.ZeltoSetDestinationIPandPort(destinationIp.text, Number(destinationPort.text))
                }
                Item { Layout.fillWidth: true }
            }

            // 3. Upgrade
            SectionTitle { objectName: "sectionUpgrade"; text: "Upgrade" }
            Repeater {
                objectName: "versionRows"
                model: page.manager ? page.manager.ZeltoLidarVersionInfo : []
                delegate: Row_ {
                    RowLabel { text: String(modelData[0]) }
                    Text {
                        Layout.fillWidth: true
                        text: String(modelData[1])
                        font.family: Theme.fontFamily
                        font.pixelSize: Theme.fontSize
                        color: Theme.text
                    }
                }
            }
            Row_ {
                objectName: "rowUpgradeMode"
                RowLabel { text: "Upgrade Mode" }
                DefaultComboBox {
                    id: upgradeMode
                    objectName: "upgradeModeCombo"
                    Layout.preferredWidth: 180
                    model: page.upgradeModes
                    enabled: !(page.manager && page.manager.IsUpgrading)
                    onActivated: page.manager.ZeltoSetUpgradeMode(page.upgradeModeValue(index))
                    // A new model starts at its first entry, and the controller hears it.
                    onModelChanged: {
                        currentIndex = 0;
                        if (page.manager) page.manager.ZeltoSetUpgradeMode(0);
                    }
                }
                Item { Layout.fillWidth: true }
            }
            Item {
                id: upgradeControlSlot
                objectName: "upgradeControlSlot"
                width: body.width
                height: childrenRect.height
                UpgradeArea {
                    objectName: "zeltoUpgradeArea"
                    width: parent.width
                    manager: page.manager
                    title: "Upgrade Package"
                    acceptedSuffixes: [".bin", ".patch"]
                    rejectText: "Rejected, need a *.bin or *.patch file"
                    progressAlwaysShown: false
                    startUpgrade: function (url) { return page.startUpgrade(url); }
                    // The refusal of a file goes to the log pane; the controller's own
                    // refusals arrive as its error notice.
                    onRejected: if (message === rejectText) page.logRequested(message, "INFO")
                }
            }

            // 4. Log
            SectionTitle { objectName: "sectionLog"; text: "Log" }
            Row_ {
                RowLabel { text: "VK Log Window" }
                Item { Layout.fillWidth: true }
                DefaultToolButton { objectName: "zeltoOpenLogButton"; text: "Open"; onClicked: page.openLogRequested() }
            }
        }
    }
}
