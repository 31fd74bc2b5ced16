import QtQuick 2.15
import "."

// Successes and plain information ("Nothing to be saved").
NoticeWindow {
    objectName: "successInfoWindow"
    title: "Information"
    glyph: "\u2713"
    accentColor: Theme.success
}
