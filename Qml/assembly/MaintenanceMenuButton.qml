import QtQuick 2.15
import QtQuick.Controls 2.15
import "."

// The top bar's restart and reset menu. It only asks; the window decides what each
// entry does (a reset is confirmed first).
DefaultToolButton {
    id: button
    text: "Restart \u25be"
    secondary: true
    // Whether the entries may be used now (connected, nothing else running).
    property bool actionsEnabled: true
    signal restartRequested()
    signal resetRequested()

    onClicked: menu.opened ? menu.close() : menu.open()

    Menu {
        id: menu
        objectName: "maintenanceMenu"
        y: button.height + 4
        width: 200
        padding: 4
        background: Rectangle {
            color: Theme.panel
            radius: Theme.radius
            border.color: Theme.midlight
        }

        MenuEntry {
            objectName: "restartEntry"
            text: "Restart"
            onTriggered: button.restartRequested()
        }
        MenuEntry {
            objectName: "resetEntry"
            text: "Reset All Settings"
            onTriggered: button.resetRequested()
        }
    }

    component MenuEntry: MenuItem {
        id: entry
        height: 42
        implicitHeight: 42
        enabled: button.actionsEnabled
        font.family: Theme.fontFamily
        font.pixelSize: Theme.fontSize
        contentItem: Text {
            leftPadding: 10
            text: entry.text
            font: entry.font
            color: entry.enabled ? Theme.text : Theme.textFaint
            verticalAlignment: Text.AlignVCenter
        }
        background: Rectangle {
            radius: Theme.radius
            color: entry.highlighted ? Theme.accent : "transparent"
        }
    }
}
