import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// The Monitor page: the model's timer-marked numbers over time, one chart per unit, with
// the sampling period, the time window, pause, limits, a CSV recording and a PNG.
Item {
    id: page
    objectName: "monitorPage"
    property var monitor: null
    signal errorRequested(string message)

    // Read once per sample for every chart, and not at all while another page is shown.
    readonly property var stats: visible && monitor ? monitor.series : []
    readonly property var periods: [100, 200, 500, 1000, 2000, 5000, 10000, 30000, 60000]
    // A PNG is being saved: every chart is kept current, those scrolled out of view too.
    property bool drawAll: false

    Connections {
        target: page.monitor
        function onStatsChanged() { if (page.visible) page.refreshCharts(); }
        function onAlertRaised(text) { alertNotice.show(text); }
        function onProblem(text) { page.errorRequested(text); }
    }
    Connections {
        target: scroll.ScrollBar.vertical
        function onPositionChanged() { page.refreshStale(); }
    }
    onVisibleChanged: if (visible) refreshCharts()

    // Only the charts scrolled into view are drawn; the others catch up when they come into
    // view. A chart redraw is most of the page's cost.
    function refreshCharts() {
        for (var i = 0; i < charts.count; ++i) {
            var c = charts.itemAt(i);
            if (!c) continue;
            if (drawAll || inView(c)) c.refresh();
            else c.stale = true;
        }
    }
    function refreshStale() {
        for (var i = 0; i < charts.count; ++i) {
            var c = charts.itemAt(i);
            if (c && c.stale && inView(c)) c.refresh();
        }
    }
    function inView(item) {
        var top = item.mapToItem(scroll, 0, 0).y;
        return top + item.height > 0 && top < scroll.height;
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: Theme.margin
        spacing: Theme.spacing

        RowLayout {
            spacing: Theme.spacing
            FieldLabel { text: "Sample every" }
            DefaultComboBox {
                objectName: "monitorPeriod"
                model: page.periods.map(function (ms) { return ms < 1000 ? ms + " ms" : ms / 1000 + " s"; })
                currentIndex: page.monitor ? page.periods.indexOf(page.monitor.periodMs) : 3
                onActivated: page.monitor.periodMs = page.periods[index]
            }
            FieldLabel { text: "Show" }
            DefaultComboBox {
                objectName: "monitorWindow"
                model: page.monitor ? page.monitor.windowNames : []
                currentIndex: page.monitor ? page.monitor.windowIndex : 0
                onActivated: page.monitor.windowIndex = index
            }
            DefaultToolButton {
                objectName: "monitorPause"
                secondary: true
                text: page.monitor && page.monitor.paused ? "Resume" : "Pause"
                onClicked: page.monitor.paused = !page.monitor.paused
            }
            Item { Layout.fillWidth: true }
            Text {
                text: page.monitor && page.monitor.recording ? "Recording to " + page.monitor.recordingPath
                                                             : page.monitor ? page.monitor.sampleCount + " samples" : ""
                color: page.monitor && page.monitor.recording ? Theme.live : Theme.textDim
                font.family: Theme.fontFamily
                font.pixelSize: Theme.fontSizeSmall
                elide: Text.ElideMiddle
                Layout.maximumWidth: 420
            }
            DefaultToolButton {
                objectName: "monitorRecord"
                text: page.monitor && page.monitor.recording ? "Stop recording" : "Record..."
                onClicked: page.monitor.recording ? page.monitor.stopRecording() : recordDialog.open()
            }
            DefaultToolButton {
                secondary: true
                text: "Save chart as PNG"
                onClicked: pngDialog.open()
            }
        }

        Text {
            visible: charts.count === 0
            text: "Connect to a sensor: its periodically refreshed values are charted here."
            color: Theme.textDim
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSize
        }

        ScrollView {
            id: scroll
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            contentWidth: availableWidth
            onHeightChanged: page.refreshStale()

            // The picture's background: the legend's light text stays readable in a PNG.
            Rectangle {
                id: chartSheet
                implicitWidth: scroll.availableWidth
                implicitHeight: chartColumn.height
                color: Theme.window

                Column {
                    id: chartColumn
                    width: scroll.availableWidth
                    spacing: Theme.spacing
                    Repeater {
                        id: charts
                        model: page.monitor ? page.monitor.charts : []
                        delegate: MonitorChart {
                            width: chartColumn.width
                            monitor: page.monitor
                            chartIndex: index
                            title: modelData.title
                            members: modelData.members
                            stats: page.stats
                            onErrorRequested: page.errorRequested(message)
                        }
                    }
                }
            }
        }
    }

    NoticeWindow {
        id: alertNotice
        objectName: "monitorAlert"
        title: "Limit crossed"
        glyph: "!"
        accentColor: Theme.warning
    }

    Loader {
        id: recordDialog
        active: false
        sourceComponent: DocumentsFileDialog {
            title: "Record to"
            selectExisting: false
            nameFilters: ["CSV files (*.csv)", "All files (*)"]
            onAccepted: page.monitor.startRecording(fileUrl)
        }
        function open() {
            active = true;
            item.open();
        }
    }
    Loader {
        id: pngDialog
        active: false
        sourceComponent: DocumentsFileDialog {
            title: "Save the charts as"
            selectExisting: false
            nameFilters: ["PNG images (*.png)"]
            onAccepted: {
                var url = fileUrl;
                chartSheet.grabToImage(function (result) {
                    page.monitor.savePng(result.image, url);
                    page.drawAll = false;
                });
            }
            onRejected: page.drawAll = false
        }
        function open() {
            // A chart draws a moment after its points change: bring them all up to date
            // while the user names the file.
            page.drawAll = true;
            page.refreshCharts();
            active = true;
            item.open();
        }
    }
}
