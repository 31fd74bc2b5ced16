import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import QtCharts 2.15
import "."

// One chart of the Monitor page (the series of one unit) and, beside it, a legend entry
// per series: on/off, current, min, mean, max over the window, and its limits.
RowLayout {
    id: root
    property var monitor: null
    property int chartIndex: 0
    property string title: ""
    property var members: []
    property var stats: []
    signal errorRequested(string message)

    property var lines: []
    property var limitLines: []
    property string hoverText: ""
    property int drawnWidth: 0
    // A sample came while the chart was scrolled out of view: redraw when it comes back.
    property bool stale: false

    spacing: Theme.spacing

    function refresh() {
        if (!monitor) return;
        stale = false;
        // The chart's own width, not its plot area's: the plot area moves with the value
        // labels, and redrawing on that would chase the axis.
        drawnWidth = Math.max(1, Math.round(chart.width - 80));
        for (var i = 0; i < lines.length; ++i) {
            monitor.fillSeries(lines[i], members[i], drawnWidth);
            monitor.fillLimit(limitLines[2 * i], members[i], false);
            monitor.fillLimit(limitLines[2 * i + 1], members[i], true);
        }
        // Set here rather than bound, so a page not shown costs no axis layout.
        axisX.min = monitor.viewFrom;
        axisX.max = monitor.viewTo;
        var range = monitor.valueRange(chartIndex);
        if (axisY.min !== range[0]) axisY.min = range[0];
        if (axisY.max !== range[1]) axisY.max = range[1];
    }

    ChartView {
        id: chart
        Layout.fillWidth: true
        Layout.preferredHeight: 220
        legend.visible: false
        antialiasing: false
        animationOptions: ChartView.NoAnimation
        backgroundColor: Theme.chartBackground
        plotAreaColor: Theme.chartBackground
        margins { left: 4; right: 8; top: 4; bottom: 4 }

        DateTimeAxis {
            id: axisX
            format: "HH:mm:ss"
            tickCount: 7
            labelsColor: Theme.textDim
            gridLineColor: Theme.chartGrid
            labelsFont.pixelSize: Theme.fontSizeSmall
        }
        ValueAxis {
            id: axisY
            labelsColor: Theme.textDim
            gridLineColor: Theme.chartGrid
            labelsFont.pixelSize: Theme.fontSizeSmall
            labelFormat: "%.5g"
            titleText: root.title
            titleBrush: Theme.textDim
        }

        Component.onCompleted: {
            var made = [], limits = [];
            for (var i = 0; i < root.members.length; ++i) {
                var colour = Theme.seriesColors[i % Theme.seriesColors.length];
                var s = chart.createSeries(ChartView.SeriesTypeLine, "s" + i, axisX, axisY);
                s.color = colour;
                s.width = 1.5;
                s.useOpenGL = false;
                s.hovered.connect(hoverFor(root.members[i]));
                made.push(s);
                for (var k = 0; k < 2; ++k) {
                    var l = chart.createSeries(ChartView.SeriesTypeLine, "l" + i + k, axisX, axisY);
                    l.color = Theme.limitLine;
                    l.width = 1;
                    l.style = Qt.DashLine;
                    limits.push(l);
                }
            }
            root.lines = made;
            root.limitLines = limits;
            root.refresh();
        }
        function hoverFor(index) {
            return function (point, state) { root.hoverText = state ? root.monitor.pointText(index, point.x, point.y) : ""; };
        }
        onWidthChanged: root.refresh()

        Text {
            anchors.top: parent.top
            anchors.right: parent.right
            anchors.margins: 10
            text: root.hoverText
            color: Theme.text
            font.family: Theme.fontFamily
            font.pixelSize: Theme.fontSizeSmall
        }
    }

    Column {
        Layout.preferredWidth: 420
        Layout.alignment: Qt.AlignTop
        spacing: 4

        Repeater {
            model: root.members
            delegate: Column {
                readonly property var stat: root.stats.length > modelData ? root.stats[modelData] : ({})
                spacing: 2
                Row {
                    spacing: 6
                    CheckBox {
                        id: shown
                        checked: stat.visible === true
                        padding: 0
                        onToggled: root.monitor.setSeriesVisible(modelData, checked)
                        indicator: Rectangle {
                            implicitWidth: 14
                            implicitHeight: 14
                            y: 3
                            radius: 2
                            color: shown.checked ? Theme.seriesColors[index % Theme.seriesColors.length] : "transparent"
                            border.color: Theme.seriesColors[index % Theme.seriesColors.length]
                        }
                        contentItem: Text {
                            leftPadding: 20
                            text: stat.name + (stat.unit ? " [" + stat.unit + "]" : "")
                            color: stat.alert ? Theme.error : Theme.text
                            font.family: Theme.fontFamily
                            font.pixelSize: Theme.fontSize
                            font.bold: stat.alert === true
                        }
                    }
                }
                Text {
                    leftPadding: 20
                    text: "now " + stat.current + "   min " + stat.min + "   mean " + stat.mean + "   max " + stat.max
                    color: Theme.textDim
                    font.family: Theme.monoFamily
                    font.pixelSize: Theme.fontSizeSmall
                }
                Row {
                    leftPadding: 20
                    spacing: 6
                    Text {
                        text: "limits"
                        color: Theme.textFaint
                        font.pixelSize: Theme.fontSizeSmall
                        anchors.verticalCenter: parent.verticalCenter
                    }
                    DefaultTextField {
                        id: low
                        width: 80
                        height: 24
                        placeholderText: "low"
                        text: stat.low !== undefined ? stat.low : ""
                        onEditingFinished: root.applyLimits(modelData, low.text, high.text)
                    }
                    DefaultTextField {
                        id: high
                        width: 80
                        height: 24
                        placeholderText: "high"
                        text: stat.high !== undefined ? stat.high : ""
                        onEditingFinished: root.applyLimits(modelData, low.text, high.text)
                    }
                }
            }
        }
    }

    function applyLimits(index, low, high) {
        var why = monitor.setLimits(index, low, high);
        if (why !== "") root.errorRequested(why);
    }
}
