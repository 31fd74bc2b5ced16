import QtQuick 2.15
import QtQuick.Controls 2.15
import "."

// Single-line entry on the dark field colour; `warn` outlines it in red, `unread` dims a
// value the sensor has not sent.
TextField {
    id: control
    property bool warn: false
    property bool unread: false

    implicitHeight: Theme.controlHeight
    implicitWidth: 140
    leftPadding: 8
    rightPadding: 8
    verticalAlignment: TextInput.AlignVCenter
    selectByMouse: true
    hoverEnabled: true
    font.family: Theme.fontFamily
    font.pixelSize: Theme.fontSize
    color: unread ? Theme.unread : enabled ? Theme.text : Theme.textDim
    selectionColor: Theme.accent
    selectedTextColor: Theme.text
    placeholderTextColor: Theme.textFaint

    background: Rectangle {
        radius: Theme.radius
        color: control.enabled ? Theme.field : "transparent"
        border.width: 1
        border.color: control.warn ? Theme.error
                    : !control.enabled ? Theme.divider
                    : control.activeFocus ? Theme.accent
                    : control.hovered && control.enabled ? Theme.light : Theme.midlight
    }
}
