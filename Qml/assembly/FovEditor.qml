import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// The five field-of-view windows: start angles (values 0-4) over end angles (values 5-9).
// A box the sensor has not filled in this connection is dimmed; the row lays the reasons
// over the boxes (box(i)), since a disabled editor takes no hover.
GridLayout {
    id: editor
    property var manager: null
    readonly property var fov: manager ? manager.FovList : []
    readonly property var notes: manager ? manager.FovReadNotes : []

    // Changes when the boxes are made, so bindings to box(i) look again.
    readonly property int boxCount: starts.count + ends.count

    function noteOf(i) {
        return notes.length > i ? String(notes[i]) : "";
    }
    function box(i) {
        return i < 5 ? starts.itemAt(i) : ends.itemAt(i - 5);
    }

    columns: 6
    rowSpacing: 6
    columnSpacing: 6

    Text {
        text: "Start"
        font.family: Theme.fontFamily
        font.pixelSize: Theme.fontSizeSmall
        color: Theme.textDim
        Layout.preferredWidth: 30
    }
    Repeater {
        id: starts
        model: 5
        delegate: DefaultTextField {
            objectName: "fovStart" + index
            Layout.fillWidth: true
            Layout.preferredHeight: 26
            horizontalAlignment: TextInput.AlignHCenter
            text: editor.fov.length > index ? editor.fov[index] : ""
            unread: editor.noteOf(index) !== ""
            onEditingFinished: editor.manager.SetMultiFovConfig(index, text)
        }
    }
    Text {
        text: "End"
        font.family: Theme.fontFamily
        font.pixelSize: Theme.fontSizeSmall
        color: Theme.textDim
        Layout.preferredWidth: 30
    }
    Repeater {
        id: ends
        model: 5
        delegate: DefaultTextField {
            objectName: "fovEnd" + index
            Layout.fillWidth: true
            Layout.preferredHeight: 26
            horizontalAlignment: TextInput.AlignHCenter
            text: editor.fov.length > index + 5 ? editor.fov[index + 5] : ""
            unread: editor.noteOf(index + 5) !== ""
            onEditingFinished: editor.manager.SetMultiFovConfig(index + 5, text)
        }
    }
}
