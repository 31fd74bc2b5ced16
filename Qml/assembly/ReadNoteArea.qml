import QtQuick 2.15
import QtQuick.Controls 2.15
import "."

// Laid over a value the sensor has not sent in this connection: says so on hover. It takes
// no buttons, so clicks and the wheel still reach the control below, and it works over a
// disabled control, which gets no hover itself.
MouseArea {
    property string note: ""

    anchors.fill: parent
    enabled: note !== ""
    hoverEnabled: true
    acceptedButtons: Qt.NoButton
    ToolTip.visible: enabled && containsMouse
    ToolTip.text: note
    ToolTip.delay: 400
}
