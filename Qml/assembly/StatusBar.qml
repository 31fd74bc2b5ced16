import QtQuick 2.15
import QtQuick.Layouts 1.15
import "."

// The status bar: the connection, the model, and the last log line.
Rectangle {
    id: bar
    property int connectType: 0
    property bool connected: false
    property string selectedModel: ""
    property string lastLogText: ""
    property string lastLogType: "INFO"
    color: Theme.panel

    RowLayout {
        anchors.fill: parent
        anchors.leftMargin: Theme.margin
        anchors.rightMargin: Theme.margin
        spacing: 8
        Rectangle {
            width: 8
            height: 8
            radius: 4
            color: bar.connected ? Theme.connected : Theme.disconnected
        }
        Text {
            objectName: "statusText"
            text: (bar.connected ? "Connected" : "Not connected")
                  + (bar.connectType === 1 ? "  \u00b7  " + varkel_manager.serial_port_485
                                           : "  \u00b7  " + varkel_manager.ip_address + ":" + varkel_manager.port)
                  + (bar.selectedModel !== "" ? "  \u00b7  " + bar.selectedModel : "")
                  + (bar.connected && bar.connectType !== 1 && varkel_manager.tlsIssuer !== ""
                     ? "  \u00b7  TLS verified, issued by " + varkel_manager.tlsIssuer : "")
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSizeSmall
            color: Theme.textDim
        }
        Item { Layout.fillWidth: true }
        Text {
            Layout.maximumWidth: bar.width * 0.55
            text: bar.lastLogText
            elide: Text.ElideRight
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSizeSmall
            color: bar.lastLogType === "ERROR" ? Theme.error
                 : bar.lastLogType === "WARNING" ? Theme.warning : Theme.textDim
        }
    }
}
