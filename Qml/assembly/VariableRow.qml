import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "."

// One variable of a page, drawn by its component kind:
// 0 name and value, 1 entry field, 2 switch and entry field, 3 option list,
// 4 the firmware upgrade area, 5 option list with the ten field-of-view boxes.
// Other kinds draw nothing here.
Item {
    id: row
    // [label, kind, module, group, index], as the controller lists a page's rows.
    property var entry: []
    property var manager: null
    // The controller's variable maps: all values, and the timer-refreshed ones.
    property var snapshot: []
    property var live: []
    property var outOfRangeNames: []
    property bool canWrite: false
    property bool canEditFov: false
    // A notice the page should show (the upgrade area's refusal of a file).
    signal errorRequested(string message)

    readonly property string label: entry.length > 0 ? String(entry[0]) : ""
    readonly property int kind: entry.length > 1 ? Number(entry[1]) : -1
    readonly property int moduleIndex: entry.length > 2 ? Number(entry[2]) : -1
    readonly property int groupIndex: entry.length > 3 ? Number(entry[3]) : -1
    readonly property int varIndex: entry.length > 4 ? Number(entry[4]) : -1
    readonly property bool drawn: kind === 0 || kind === 1 || kind === 2 || kind === 3 || kind === 5
    readonly property bool isUpgrade: kind === 4
    // Fixed per row for one table: the controller marks which variables the page timer re-reads.
    readonly property bool timerUpdated: manager !== null && kind >= 0
                                         && manager.isTimerUpdate(moduleIndex, groupIndex, varIndex)

    function infoIn(maps) {
        if (!maps || moduleIndex < 0 || moduleIndex >= maps.length) return null;
        var groups = maps[moduleIndex];
        if (!groups || groupIndex < 0 || groupIndex >= groups.length) return null;
        var vars = groups[groupIndex];
        if (!vars || varIndex < 0 || varIndex >= vars.length) return null;
        return vars[varIndex];
    }
    readonly property var info: infoIn(timerUpdated ? live : snapshot)
    readonly property string value: info ? String(info.current_val) : ""
    readonly property bool editable: canWrite && info !== null && Number(info.permission) !== 0
    readonly property bool outOfRange: info !== null && outOfRangeNames.indexOf(String(info.var_name)) >= 0
    // Raw rows hold secrets (keys, passwords): never shown over a shoulder.
    readonly property bool masked: info !== null && String(info.var_type) === "raw"
    // The controller's word on where the value comes from: "" when read over this
    // connection, otherwise the reason it is drawn dimmed (the tooltip).
    readonly property string readNote: info && info.read_note !== undefined ? String(info.read_note) : ""
    readonly property bool unread: readNote !== ""

    function optionTexts() {
        if (!info || !info.options) return [];
        var texts = [];
        for (var k = 0; k < info.options.length; ++k) {
            var t = info.varname_value_to_option ? info.varname_value_to_option[k] : undefined;
            texts.push(t !== undefined && String(t) !== "" ? String(t) : String(info.options[k]));
        }
        return texts;
    }
    // A read-only value with option labels reads as its label ("Locked", not "1").
    function valueLabel() {
        var k = optionIndex();
        return k >= 0 ? optionTexts()[k] : value;
    }
    function optionIndex() {
        if (!info || !info.options) return -1;
        for (var k = 0; k < info.options.length; ++k)
            if (String(info.options[k]) === String(info.current_val)) return k;
        return -1;
    }

    visible: drawn || isUpgrade
    implicitHeight: isUpgrade ? upgradeLoader.implicitHeight
                  : !drawn ? 0 : kind === 5 ? Theme.fovRowHeight : Theme.rowHeight

    Loader {
        id: upgradeLoader
        anchors.left: parent.left
        anchors.right: parent.right
        active: row.isUpgrade
        sourceComponent: UpgradeArea {
            manager: row.manager
            title: row.label
            startUpgrade: function (url) {
                return row.manager.UpgradeLidar(url, row.moduleIndex, row.groupIndex, row.varIndex);
            }
            onRejected: row.errorRequested(message)
        }
    }

    Rectangle {
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        height: 1
        color: Theme.divider
        visible: row.drawn
    }

    RowLayout {
        anchors.fill: parent
        anchors.leftMargin: 4
        anchors.rightMargin: 4
        spacing: 12
        visible: row.drawn

        Item {
            Layout.preferredWidth: Math.round(row.width * 0.38)
            Layout.fillHeight: true
            RowLayout {
                anchors.verticalCenter: parent.verticalCenter
                anchors.verticalCenterOffset: row.kind === 5 ? -(Theme.fovRowHeight - Theme.rowHeight) / 2 : 0
                width: parent.width
                spacing: 6
                Rectangle {  // live values are marked with a dot
                    width: 6
                    height: 6
                    radius: 3
                    color: Theme.live
                    visible: row.timerUpdated
                }
                Text {
                    text: row.label
                    elide: Text.ElideRight
                    font.family: Theme.fontFamily
                    font.pixelSize: Theme.fontSize
                    color: row.outOfRange ? Theme.error : Theme.textDim
                    Layout.fillWidth: true
                }
            }
        }

        Loader {
            Layout.fillWidth: true
            Layout.fillHeight: true
            sourceComponent: row.kind === 0 ? valueText
                           : row.kind === 1 ? entryField
                           : row.kind === 2 ? switchedField
                           : row.kind === 3 ? optionCombo
                           : row.kind === 5 ? fovRow : null
            // The field-of-view boxes carry their own notes.
            ReadNoteArea {
                objectName: "readNote"
                z: 1
                anchors.fill: undefined
                width: row.kind === 5 ? 150 : parent.width
                height: row.kind === 5 ? Theme.rowHeight : parent.height
                note: row.readNote
            }
        }
    }

    Component {
        id: valueText
        Item {
            Text {
                objectName: "valueText"
                anchors.verticalCenter: parent.verticalCenter
                width: parent.width
                text: row.valueLabel()
                elide: Text.ElideRight
                font.family: Theme.fontFamily
                font.pixelSize: Theme.fontSize
                color: row.unread ? Theme.unread : row.timerUpdated ? Theme.live : Theme.text
            }
        }
    }

    Component {
        id: entryField
        Item {
            DefaultTextField {
                id: field
                objectName: "valueField"
                anchors.verticalCenter: parent.verticalCenter
                width: Math.min(parent.width, 320)
                enabled: row.editable
                warn: row.outOfRange
                echoMode: row.masked ? TextInput.Password : TextInput.Normal
                unread: row.unread
                // Edits are recorded at once, so Save needs no Enter first.
                onTextEdited: row.manager.SetText(1, row.moduleIndex, row.groupIndex, row.varIndex, text)
                Component.onCompleted: text = row.value
                Connections {
                    target: row
                    // Every read replaces what is shown (so Cancel undoes an edit), except a
                    // live value under the user's cursor.
                    function onInfoChanged() {
                        if (!(row.timerUpdated && field.activeFocus)) field.text = row.value;
                    }
                }
            }
        }
    }

    Component {
        id: switchedField
        Item {
            RowLayout {
                anchors.verticalCenter: parent.verticalCenter
                width: Math.min(parent.width, 380)
                spacing: 12
                DefaultSwitch {
                    id: toggle
                    objectName: "valueSwitch"
                    enabled: row.canWrite && row.info !== null
                    checked: row.info !== null && String(row.info.switch_index) !== "0"
                             && String(row.info.switch_index) !== ""
                    onToggled: {
                        row.manager.SetText(2, row.moduleIndex, row.groupIndex, row.varIndex, checked ? "1" : "0");
                        if (!checked) row.manager.SetText(1, row.moduleIndex, row.groupIndex, row.varIndex, "0");
                    }
                }
                DefaultTextField {
                    id: field
                    objectName: "valueField"
                    Layout.fillWidth: true
                    enabled: row.editable && toggle.checked
                    warn: row.outOfRange
                    echoMode: row.masked ? TextInput.Password : TextInput.Normal
                    unread: row.unread
                    onTextEdited: row.manager.SetText(1, row.moduleIndex, row.groupIndex, row.varIndex, text)
                    Component.onCompleted: text = row.value
                    Connections {
                        target: row
                        function onInfoChanged() {
                            if (!(row.timerUpdated && field.activeFocus)) field.text = row.value;
                        }
                    }
                }
            }
        }
    }

    Component {
        id: optionCombo
        Item {
            DefaultComboBox {
                objectName: "valueCombo"
                anchors.verticalCenter: parent.verticalCenter
                width: Math.min(parent.width, 320)
                enabled: row.editable
                unread: row.unread
                model: row.optionTexts()
                currentIndex: row.optionIndex()
                onActivated: row.manager.SetText(3, row.moduleIndex, row.groupIndex, row.varIndex, String(index))
            }
        }
    }

    Component {
        id: fovRow
        RowLayout {
            spacing: 12
            DefaultComboBox {
                objectName: "valueCombo"
                Layout.alignment: Qt.AlignTop
                Layout.topMargin: (Theme.rowHeight - Theme.controlHeight) / 2
                Layout.preferredWidth: 150
                enabled: row.editable
                unread: row.unread
                model: row.optionTexts()
                currentIndex: row.optionIndex()
                onActivated: row.manager.SetText(3, row.moduleIndex, row.groupIndex, row.varIndex, String(index))
            }
            Item {
                Layout.fillWidth: true
                Layout.fillHeight: true
                FovEditor {
                    id: fovEditor
                    anchors.left: parent.left
                    anchors.right: parent.right
                    anchors.verticalCenter: parent.verticalCenter
                    manager: row.manager
                    enabled: row.canEditFov && row.editable
                }
                // Outside the editor, so that the notes show while it is disabled.
                Repeater {
                    model: 10
                    delegate: ReadNoteArea {
                        readonly property Item box: fovEditor.boxCount > 0 ? fovEditor.box(index) : null
                        anchors.fill: undefined
                        x: fovEditor.x + (box ? box.x : 0)
                        y: fovEditor.y + (box ? box.y : 0)
                        width: box ? box.width : 0
                        height: box ? box.height : 0
                        note: fovEditor.noteOf(index)
                    }
                }
            }
        }
    }
}
