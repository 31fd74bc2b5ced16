import QtQuick 2.15
import "."

// Errors and warnings from the controller or the page.
NoticeWindow {
    objectName: "errorInfoWindow"
    title: "Error"
    glyph: "!"
    accentColor: Theme.error
}
