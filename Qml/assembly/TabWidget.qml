import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// A row of tabs over a stack of pages; the pages are this item's children.
Item {
    id: root
    property var titles: []
    property int currentIndex: 0
    readonly property int count: titles ? titles.length : 0
    default property alias pages: stack.data

    onCountChanged: if (currentIndex >= count) currentIndex = Math.max(0, count - 1)

    Rectangle {
        id: bar
        anchors.left: parent.left
        anchors.right: parent.right
        height: 40
        color: Theme.panel

        Row {
            id: tabs
            anchors.left: parent.left
            anchors.leftMargin: Theme.margin
            anchors.bottom: parent.bottom
            height: parent.height
            spacing: 2

            Repeater {
                model: root.titles
                delegate: Item {
                    id: tab
                    readonly property bool current: index === root.currentIndex
                    width: label.implicitWidth + 36
                    height: tabs.height

                    Rectangle {
                        anchors.fill: parent
                        anchors.topMargin: 6
                        radius: Theme.radius
                        color: tab.current ? Theme.window : area.containsMouse ? Theme.surface : "transparent"
                        Rectangle {  // squares off the lower corners so the tab joins the page
                            anchors.left: parent.left
                            anchors.right: parent.right
                            anchors.bottom: parent.bottom
                            height: Theme.radius
                            color: parent.color
                        }
                    }
                    Rectangle {
                        anchors.left: parent.left
                        anchors.right: parent.right
                        anchors.top: parent.top
                        anchors.topMargin: 6
                        height: 2
                        color: Theme.accent
                        visible: tab.current
                    }
                    Text {
                        id: label
                        anchors.centerIn: parent
                        anchors.verticalCenterOffset: 3
                        text: modelData
                        font.family: Theme.fontFamily
                        font.pixelSize: Theme.fontSize
                        font.bold: tab.current
                        color: tab.current ? Theme.text : Theme.textDim
                    }
                    MouseArea {
                        id: area
                        anchors.fill: parent
                        hoverEnabled: true
                        cursorShape: Qt.PointingHandCursor
                        onClicked: root.currentIndex = index
                    }
                }
            }
        }
    }

    StackLayout {
        id: stack
        anchors.top: bar.bottom
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        currentIndex: root.currentIndex
    }
}
