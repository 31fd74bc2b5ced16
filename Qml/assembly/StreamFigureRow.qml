import QtQuick 2.15
import "."

// One figure of the Data Stream page: a label and its value.
Item {
    property string label: ""
    property string value: ""
    implicitHeight: Theme.rowHeight

    Text {
        anchors.verticalCenter: parent.verticalCenter
        text: parent.label
        font.family: Theme.fontFamily
        font.pixelSize: Theme.fontSize
        color: Theme.textDim
    }
    Text {
        anchors.verticalCenter: parent.verticalCenter
        x: Math.round(parent.width * 0.38) + 16
        text: parent.value
        font.family: Theme.fontFamily
        font.pixelSize: Theme.fontSize
        color: Theme.text
    }
}
