import QtQuick 2.15
import QtQuick.Dialogs 1.3

// A file dialog that opens in the user's documents folder, and later where the user last
// chose something. The folder is set as the dialog shows: the desktop's file dialog starts
// in the working directory (the install root) whatever folder it was given before.
FileDialog {
    id: dialog
    property url lastFolder: shortcuts.documents

    onVisibleChanged: if (visible) dialog.folder = dialog.lastFolder
    onAccepted: dialog.lastFolder = dialog.folder
}
