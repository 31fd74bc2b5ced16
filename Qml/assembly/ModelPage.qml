import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// One page (module) of the model's table: its rows, then Cancel and Save.
Item {
    id: page
    objectName: "page_" + pageIndex
    property int pageIndex: 0
    property string title: ""
    property var entries: []
    property var manager: null
    property var snapshot: []
    property var live: []
    property var outOfRangeNames: []
    property bool canWrite: false
    property bool canSave: false
    property bool canEditFov: false
    signal cancelRequested(int page)
    signal saveRequested(int page)
    signal errorRequested(string message)

    readonly property bool hasUpgradeArea: {
        for (var k = 0; k < entries.length; ++k)
            if (Number(entries[k][1]) === 4) return true;
        return false;
    }
    readonly property int columnWidth: Math.max(560, Math.round(width * 0.6))

    Flickable {
        id: scroller
        anchors.top: parent.top
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: footer.visible ? footer.top : parent.bottom
        contentWidth: width
        contentHeight: body.implicitHeight + 2 * Theme.margin
        clip: true
        boundsBehavior: Flickable.StopAtBounds
        ScrollBar.vertical: ScrollBar { policy: ScrollBar.AsNeeded }

        Column {
            id: body
            x: Theme.margin + 8
            y: Theme.margin
            width: page.columnWidth

            Text {
                text: page.title
                font.family: Theme.fontFamily
                font.pixelSize: Theme.fontSizeHeading + 3
                font.bold: true
                color: Theme.text
                bottomPadding: 10
            }
            Text {
                visible: page.entries.length === 0
                text: "This page has no variables."
                font.family: Theme.fontFamily
                font.pixelSize: Theme.fontSize
                color: Theme.textDim
            }
            Repeater {
                model: page.entries
                delegate: VariableRow {
                    objectName: "row_" + label
                    width: body.width
                    height: implicitHeight
                    entry: modelData
                    manager: page.manager
                    snapshot: page.snapshot
                    live: page.live
                    outOfRangeNames: page.outOfRangeNames
                    canWrite: page.canWrite
                    canEditFov: page.canEditFov
                    onErrorRequested: page.errorRequested(message)
                }
            }
        }
    }

    Rectangle {
        id: footer
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        height: 56
        color: Theme.window
        visible: page.canSave && !page.hasUpgradeArea

        Rectangle {
            anchors.left: parent.left
            anchors.right: parent.right
            anchors.top: parent.top
            height: 1
            color: Theme.divider
        }
        Row {
            x: Theme.margin + 8 + page.columnWidth - width
            anchors.verticalCenter: parent.verticalCenter
            spacing: Theme.spacing
            DefaultToolButton {
                objectName: "cancelButton_" + page.pageIndex
                text: "Cancel"
                secondary: true
                onClicked: page.cancelRequested(page.pageIndex)
            }
            DefaultToolButton {
                objectName: "saveButton_" + page.pageIndex
                text: "Save"
                onClicked: page.saveRequested(page.pageIndex)
            }
        }
    }
}
