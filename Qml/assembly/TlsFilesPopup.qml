import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// The verified-TLS files: CA, client certificate and its key, each shown with a button
// that asks the window for a file dialog. Empty CA: the system's certificate store.
Popup {
    id: popup
    signal fileRequested(string which)
    padding: 12
    background: Rectangle {
        color: Theme.panel
        border.width: 1
        border.color: Theme.divider
    }

    ColumnLayout {
        spacing: 8
        Repeater {
            model: [
                {which: "ca", label: "CA file:", none: "the system's store"},
                {which: "cert", label: "Client certificate:", none: "none"},
                {which: "key", label: "Client key:", none: "none"}
            ]
            delegate: Item {
                // Bound here, not in the model, so that a new path does not rebuild the rows.
                readonly property string path: modelData.which === "ca" ? varkel_manager.tlsCaFile
                                              : modelData.which === "cert" ? varkel_manager.tlsCertFile
                                              : varkel_manager.tlsKeyFile
                Layout.fillWidth: true
                implicitHeight: row.implicitHeight
                implicitWidth: row.implicitWidth
                RowLayout {
                    id: row
                    anchors.fill: parent
                    spacing: 10
                    FieldLabel {
                        text: modelData.label
                        Layout.preferredWidth: 120
                    }
                    Text {
                        objectName: "tlsPath_" + modelData.which
                        Layout.preferredWidth: 300
                        text: path !== "" ? path : modelData.none
                        elide: Text.ElideMiddle
                        font.family: Theme.fontFamily
                        font.pixelSize: Theme.fontSizeSmall + 1
                        color: path !== "" ? Theme.text : Theme.textFaint
                    }
                    DefaultToolButton {
                        objectName: "tlsChoose_" + modelData.which
                        text: "Choose\u2026"
                        secondary: true
                        onClicked: popup.fileRequested(modelData.which)
                    }
                    DefaultToolButton {
                        objectName: "tlsClear_" + modelData.which
                        text: "Clear"
                        secondary: true
                        enabled: path !== ""
                        onClicked: {
                            if (modelData.which === "ca") varkel_manager.tlsCaFile = "";
                            else if (modelData.which === "cert") varkel_manager.tlsCertFile = "";
                            else varkel_manager.tlsKeyFile = "";
                        }
                    }
                }
            }
        }
    }
}
