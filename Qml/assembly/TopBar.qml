import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// The top bar: where to connect, the light, the model, Connect and the menus.
Rectangle {
    id: bar
    property int connectType: 0
    property bool connected: false
    property bool hasMaintenanceMenu: false
    property bool canMaintain: false
    property bool lineIdle: false
    readonly property alias selectedModel: modelCombo.currentText
    signal modelSelected(string model)
    signal connectPressed
    signal restartRequested
    signal resetRequested
    signal aboutRequested
    signal tlsFileRequested(string which)

    function modelIndexAtStart() {
        var list = varkel_manager.LidarModelList;
        var wanted = varkel_manager.getVMNowName();
        if (wanted === "") wanted = "Quenta";
        for (var k = 0; k < list.length; ++k)
            if (String(list[k]) === wanted) return k;
        return list.length > 0 ? 0 : -1;
    }

    color: Theme.panel

    Rectangle {
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        height: 1
        color: Theme.divider
    }

    RowLayout {
        anchors.fill: parent
        anchors.leftMargin: Theme.margin
        anchors.rightMargin: Theme.margin
        spacing: 8

        Image {
            source: "qrc:/png/Varkel-LOGO-black.svg"
            sourceSize.width: 30
            sourceSize.height: 30
            Layout.preferredWidth: 30
            Layout.preferredHeight: 30
        }
        Text {
            objectName: "titleText"
            text: "Varkel"
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSizeTitle
            font.bold: true
            color: Theme.text
            Layout.rightMargin: 6
        }

        // Network fields (KTC over TCP/TLS, and the small sensors' network side)
        FieldLabel { text: "IPv4 Address:"; visible: bar.connectType !== 1 }
        DefaultTextField {
            objectName: "ipField"
            visible: bar.connectType !== 1
            Layout.preferredWidth: 122
            // Fields give way down to their minimum so that the buttons at the end stay whole.
            Layout.fillWidth: true
            Layout.minimumWidth: 96
            text: varkel_manager.ip_address
            enabled: !bar.connected
            onTextEdited: varkel_manager.ip_address = text
        }
        FieldLabel { text: "KTC/KTCS Port:"; visible: bar.connectType !== 1 }
        DefaultTextField {
            objectName: "portField"
            visible: bar.connectType !== 1
            Layout.preferredWidth: 60
            Layout.fillWidth: true
            Layout.minimumWidth: 58
            text: varkel_manager.port
            enabled: !bar.connected
            onTextEdited: varkel_manager.port = text
        }
        DefaultSwitch {
            objectName: "tlsSwitch"
            visible: bar.connectType !== 1
            text: "TLS"
            enabled: !bar.connected
            checked: varkel_manager.tlsEnabled
            onToggled: varkel_manager.tlsEnabled = checked
        }
        DefaultToolButton {
            objectName: "tlsFilesButton"
            visible: bar.connectType !== 1 && varkel_manager.tlsEnabled
            // Compact: the bar has no room for a wider button.
            text: "\u2026"
            Layout.preferredWidth: 26
            leftPadding: 0
            rightPadding: 0
            ToolTip.visible: hovered
            ToolTip.text: "CA file, client certificate and key"
            secondary: true
            enabled: !bar.connected
            onClicked: tlsFiles.open()
            TlsFilesPopup {
                id: tlsFiles
                objectName: "tlsFilesPopup"
                y: parent.height + 4
                onFileRequested: bar.tlsFileRequested(which)
            }
        }
        FieldLabel { text: "Udp Port:"; visible: bar.connectType !== 1 }
        DefaultTextField {
            objectName: "udpPortField"
            visible: bar.connectType !== 1
            Layout.preferredWidth: 60
            Layout.fillWidth: true
            Layout.minimumWidth: 46
            text: varkel_manager.udpPort
            enabled: !bar.connected
            validator: IntValidator { bottom: 0; top: 65535 }
            // Only whole numbers reach the controller, which refuses anything else.
            onTextEdited: if (acceptableInput) varkel_manager.udpPort = text
        }

        // Serial fields
        FieldLabel { text: "RS485 Serial Port:"; visible: bar.connectType === 1 }
        DefaultTextField {
            objectName: "rs485Field"
            visible: bar.connectType === 1
            Layout.preferredWidth: 120
            text: varkel_manager.serial_port_485
            enabled: !bar.connected
            onTextEdited: varkel_manager.serial_port_485 = text
        }
        FieldLabel { text: "UART Serial Port:"; visible: bar.connectType === 1 }
        DefaultTextField {
            objectName: "uartField"
            visible: bar.connectType === 1
            Layout.preferredWidth: 120
            text: varkel_manager.serial_port_232
            enabled: !bar.connected
            onTextEdited: varkel_manager.serial_port_232 = text
        }

        FieldLabel { text: "Baud Rate:" }
        DefaultComboBox {
            id: baudCombo
            objectName: "baudRateCombo"
            Layout.preferredWidth: 104
            Layout.fillWidth: true
            Layout.minimumWidth: 92
            editable: true
            enabled: !bar.connected
            model: {
                var offers = ["3000000", "3125000"];
                var current = String(varkel_manager.baud_rate);
                if (current !== "" && offers.indexOf(current) < 0) offers.push(current);
                return offers;
            }
            currentIndex: Math.max(0, model.indexOf(String(varkel_manager.baud_rate)))
            validator: IntValidator { bottom: 1 }
            onActivated: varkel_manager.baud_rate = currentText
            onAccepted: varkel_manager.baud_rate = editText
        }

        Item { Layout.fillWidth: true }

        Rectangle {
            id: light
            objectName: "connectionLight"
            width: 14
            height: 14
            radius: 7
            color: bar.connected ? Theme.connected : Theme.disconnected
            border.width: 2
            border.color: Qt.darker(color, 1.6)
        }
        DefaultComboBox {
            id: modelCombo
            objectName: "modelCombo"
            Layout.preferredWidth: 128
            Layout.fillWidth: true
            Layout.minimumWidth: 100
            model: varkel_manager.LidarModelList
            enabled: !bar.connected && varkel_manager.getVMNowName() === ""
            Component.onCompleted: currentIndex = bar.modelIndexAtStart()
            onActivated: bar.modelSelected(currentText)
        }
        DefaultToolButton {
            id: connectButton
            objectName: "connectButton"
            Layout.preferredWidth: 108
            text: bar.connected ? "Disconnect" : "Connect"
            color: bar.connected ? Theme.surface : Theme.accent
            enabled: !varkel_manager.IsDownloadLog
            onClicked: bar.connectPressed()
        }
        MaintenanceMenuButton {
            objectName: "maintenanceButton"
            visible: bar.hasMaintenanceMenu
            actionsEnabled: bar.canMaintain && bar.lineIdle
            onRestartRequested: bar.restartRequested()
            onResetRequested: bar.resetRequested()
        }
        DefaultToolButton {
            objectName: "aboutButton"
            text: "About"
            secondary: true
            onClicked: bar.aboutRequested()
        }
    }
}

