import QtQuick 2.15
import QtQuick.Controls 2.15
import "."

// Action button: blue, lighter while pressed; `secondary` gives the grey variant.
Button {
    id: control
    property bool secondary: false
    property color color: secondary ? Theme.surface : Theme.accent
    property color pressedColor: secondary ? Theme.midlight : Theme.accentPressed

    implicitHeight: Theme.controlHeight
    implicitWidth: Math.max(84, contentItem.implicitWidth + leftPadding + rightPadding)
    leftPadding: 16
    rightPadding: 16
    hoverEnabled: true
    focusPolicy: Qt.TabFocus
    font.family: Theme.fontFamily
    font.pixelSize: Theme.fontSize
    font.bold: true

    contentItem: Text {
        text: control.text
        font: control.font
        color: control.enabled ? Theme.text : Theme.textFaint
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
        elide: Text.ElideRight
    }
    background: Rectangle {
        radius: Theme.radius
        color: !control.enabled ? Theme.surface
             : control.down ? control.pressedColor
             : control.hovered ? Qt.lighter(control.color, 1.12) : control.color
        border.width: control.visualFocus ? 1 : 0
        border.color: Theme.text
    }
}
