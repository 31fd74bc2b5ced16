import QtQuick 2.15
import "."

// The caption in front of a top-bar field.
Text {
    font.family: Theme.fontFamily
    font.pixelSize: Theme.fontSizeSmall + 1
    color: Theme.textDim
    verticalAlignment: Text.AlignVCenter
}
