import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// The change journal, newest first, with the command line's filters, and the support
// bundle. The controller's history object reads, filters and packs; this page shows.
Item {
    id: page
    objectName: "historyPage"
    property var history: null
    signal bundleRequested()

    readonly property var entries: history ? history.entries : []
    readonly property var columns: [
        { key: "time", title: "Time (UTC)", width: 190 },
        { key: "user", title: "User", width: 90 },
        { key: "host", title: "Host", width: 120 },
        { key: "serial", title: "Serial number", width: 120 },
        { key: "what", title: "Change", width: 80 },
        { key: "name", title: "Name", width: 170 },
        { key: "old", title: "Old", width: 110 },
        { key: "new", title: "New", width: 110 },
        { key: "outcome", title: "Outcome", width: 100 }
    ]

    function refresh() {
        if (!history) return;
        history.since = sinceField.text;
        history.host = hostField.text;
        history.serial = serialField.text;
        history.refresh();
    }

    onVisibleChanged: if (visible) refresh()

    ColumnLayout {
        x: Theme.margin + 8
        y: Theme.margin
        width: page.width - 2 * Theme.margin - 16
        height: page.height - 2 * Theme.margin
        spacing: 10

        Text {
            text: "History"
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSizeHeading + 3
            font.bold: true
            color: Theme.text
        }

        RowLayout {
            spacing: 8
            DefaultTextField {
                id: sinceField
                objectName: "historySince"
                Layout.preferredWidth: 200
                placeholderText: "since 2026-11-26T08:00"
                onAccepted: page.refresh()
            }
            DefaultTextField {
                id: hostField
                objectName: "historyHost"
                Layout.preferredWidth: 150
                placeholderText: "host"
                onAccepted: page.refresh()
            }
            DefaultTextField {
                id: serialField
                objectName: "historySerial"
                Layout.preferredWidth: 150
                placeholderText: "serial number"
                onAccepted: page.refresh()
            }
            DefaultToolButton {
                objectName: "historyRefresh"
                text: "Show"
                onClicked: page.refresh()
            }
            Item { Layout.fillWidth: true }
            DefaultToolButton {
                objectName: "saveBundleButton"
                text: "Save support bundle..."
                enabled: history ? !history.bundleBusy : false
                onClicked: page.bundleRequested()
            }
        }

        Text {
            visible: text !== ""
            text: !history ? "" : history.filterError !== "" ? history.filterError
                                : history.loading ? "Reading the journal..." : history.bundleMessage
            font.family: Theme.fontFamily
            color: history && history.filterError !== "" ? Theme.error : Theme.text
        }

        Row {
            spacing: 0
            Repeater {
                model: page.columns
                Text {
                    width: modelData.width
                    text: modelData.title
                    font.family: Theme.fontFamily
                    font.bold: true
                    color: Theme.text
                }
            }
        }

        ListView {
            objectName: "historyList"
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            model: page.entries
            ScrollBar.vertical: ScrollBar {}
            delegate: Row {
                property var entry: modelData
                Repeater {
                    model: page.columns
                    Text {
                        width: modelData.width
                        text: String(entry[modelData.key] || "")
                        elide: Text.ElideRight
                        font.family: Theme.fontFamily
                        color: modelData.key === "outcome" && entry.outcome !== "ok" ? Theme.error : Theme.text
                    }
                }
            }
        }
    }
}
