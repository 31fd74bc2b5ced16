import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// Program name, version and maker.
Popup {
    id: root
    parent: Overlay.overlay
    anchors.centerIn: parent
    width: 420
    modal: true
    focus: true
    closePolicy: Popup.CloseOnEscape | Popup.CloseOnPressOutside
    padding: 24

    Overlay.modal: Rectangle { color: "#A0000000" }

    background: Rectangle {
        color: Theme.panel
        radius: 6
        border.color: Theme.midlight
    }

    contentItem: ColumnLayout {
        spacing: 10
        RowLayout {
            spacing: 14
            Image {
                source: "qrc:/png/Varkel-LOGO-black.svg"
                sourceSize.width: 64
                sourceSize.height: 64
                Layout.preferredWidth: 64
                Layout.preferredHeight: 64
            }
            ColumnLayout {
                spacing: 2
                Text {
                    text: "Varkel"
                    font.family: Theme.fontFamily
                    font.pixelSize: Theme.fontSizeTitle
                    font.bold: true
                    color: Theme.text
                }
                Text {
                    text: "Version " + Qt.application.version
                    font.family: Theme.fontFamily
                    font.pixelSize: Theme.fontSize
                    color: Theme.textDim
                }
            }
        }
        Rectangle { Layout.fillWidth: true; height: 1; color: Theme.divider }
        Text {
            text: "Inspect and configure lidar sensors over KTC (TCP/TLS) and serial lines."
            wrapMode: Text.Wrap
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSize
            color: Theme.text
            Layout.fillWidth: true
        }
        Text {
            text: Qt.application.organization + "  \u00b7  " + Qt.application.domain
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSizeSmall
            color: Theme.textDim
        }
        DefaultToolButton {
            text: "Close"
            Layout.alignment: Qt.AlignRight
            onClicked: root.close()
        }
    }
}
