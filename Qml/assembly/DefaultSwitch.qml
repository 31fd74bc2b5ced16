import QtQuick 2.15
import QtQuick.Controls 2.15
import "."

// On/off toggle: a rounded track, blue when on.
Switch {
    id: control
    implicitHeight: Theme.controlHeight
    hoverEnabled: true
    font.family: Theme.fontFamily
    font.pixelSize: Theme.fontSize
    spacing: 8
    padding: 0

    indicator: Rectangle {
        implicitWidth: 40
        implicitHeight: 20
        x: control.leftPadding
        y: (control.height - height) / 2
        radius: height / 2
        color: !control.enabled ? Theme.panel : control.checked ? Theme.accent : Theme.surface
        border.width: 1
        border.color: control.checked && control.enabled ? Theme.accent : Theme.midlight

        Rectangle {
            width: 16
            height: 16
            radius: 8
            y: 2
            x: control.checked ? parent.width - width - 2 : 2
            color: control.enabled ? (control.down ? Theme.accentPressed : Theme.text) : Theme.textFaint
            Behavior on x { NumberAnimation { duration: 120; easing.type: Easing.OutQuad } }
        }
    }
    contentItem: Text {
        text: control.text
        font: control.font
        color: control.enabled ? Theme.text : Theme.textDim
        verticalAlignment: Text.AlignVCenter
        leftPadding: control.text.length > 0 ? control.indicator.width + control.spacing : control.indicator.width
    }
}
