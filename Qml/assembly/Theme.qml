pragma Singleton
import QtQuick 2.15

// Every colour, font and measure the windows use. The greys follow the program's palette.
QtObject {
    // Palette greys
    readonly property color window: "#2B2C2E"
    readonly property color panel: "#222325"
    readonly property color surface: "#3A3D3F"
    readonly property color surfaceHover: "#45494C"
    readonly property color midlight: "#4D4D4D"
    readonly property color light: "#666666"
    readonly property color base: "#010101"
    readonly property color field: "#18191B"
    readonly property color text: "#EEEEEE"
    readonly property color textDim: "#9EA2A8"
    readonly property color textFaint: "#6B6F75"
    readonly property color highlight: "#999999"
    readonly property color divider: "#36383B"

    // Actions and states
    readonly property color accent: "#2C67FF"
    readonly property color accentPressed: "#4A90E2"
    readonly property color connected: "#00FF6B"
    readonly property color disconnected: "red"
    readonly property color progress: "#3256FF"
    readonly property color progressDone: "green"
    readonly property color error: "#FF5C5C"
    readonly property color warning: "#FFB347"
    readonly property color success: "#2ED47A"
    readonly property color bytes: "#7FA8FF"
    readonly property color live: "#00D9A3"
    // A value the sensor has not sent over this connection (the table's default, or the
    // last one read before a disconnect).
    readonly property color unread: "#676B71"
    // Lines of the Monitor page, one per series of a chart in turn; a limit's dashes.
    readonly property var seriesColors: ["#4FC3F7", "#FFB347", "#2ED47A", "#E57373", "#BA68C8", "#FFF176", "#4DB6AC",
                                         "#F06292"]
    readonly property color limitLine: "#FF5C5C"
    readonly property color chartBackground: "#1E1F21"
    readonly property color chartGrid: "#36383B"

    // Fonts
    readonly property string fontFamily: "Roboto"
    readonly property int fontSize: 13
    readonly property int fontSizeSmall: 11
    readonly property int fontSizeHeading: 15
    readonly property int fontSizeTitle: 22
    readonly property string monoFamily: "monospace"

    // Measures
    readonly property int rowHeight: 35
    readonly property int fovRowHeight: 80
    readonly property int controlHeight: 30
    readonly property int topBarHeight: 60
    readonly property int spacing: 8
    readonly property int margin: 16
    readonly property int radius: 4
}
