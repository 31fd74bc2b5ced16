import QtQuick 2.15
import QtQuick.Controls 2.15
import "."

// Drop-down list in the field style; works editable or not. `unread` dims a value the
// sensor has not sent.
ComboBox {
    id: control
    property bool unread: false
    implicitHeight: Theme.controlHeight
    implicitWidth: 140
    hoverEnabled: true
    font.family: Theme.fontFamily
    font.pixelSize: Theme.fontSize
    leftPadding: 8
    rightPadding: 28

    delegate: ItemDelegate {
        width: control.width
        height: Theme.controlHeight
        highlighted: control.highlightedIndex === index
        contentItem: Text {
            text: control.textRole ? (Array.isArray(control.model) ? modelData[control.textRole] : model[control.textRole])
                                   : modelData
            font: control.font
            color: Theme.text
            elide: Text.ElideRight
            verticalAlignment: Text.AlignVCenter
        }
        background: Rectangle {
            color: highlighted ? Theme.accent : (control.currentIndex === index ? Theme.surface : "transparent")
        }
    }

    indicator: Canvas {
        id: arrow
        x: control.width - width - 10
        y: (control.height - height) / 2
        width: 10
        height: 6
        contextType: "2d"
        onPaint: {
            var ctx = getContext("2d");
            ctx.reset();
            ctx.moveTo(0, 0);
            ctx.lineTo(width, 0);
            ctx.lineTo(width / 2, height);
            ctx.closePath();
            ctx.fillStyle = control.enabled ? Theme.textDim : Theme.textFaint;
            ctx.fill();
        }
        property bool active: control.enabled
        onActiveChanged: requestPaint()
    }

    contentItem: TextField {
        leftPadding: 0
        rightPadding: 0
        topPadding: 0
        bottomPadding: 0
        text: control.editable ? control.editText : control.displayText
        enabled: control.editable
        autoScroll: control.editable
        readOnly: control.down
        inputMethodHints: control.inputMethodHints
        validator: control.validator
        selectByMouse: control.selectTextByMouse
        font: control.font
        color: control.unread ? Theme.unread : control.enabled ? Theme.text : Theme.textDim
        selectionColor: Theme.accent
        verticalAlignment: Text.AlignVCenter
        background: null
    }

    background: Rectangle {
        radius: Theme.radius
        color: control.enabled ? Theme.field : "transparent"
        border.width: 1
        border.color: !control.enabled ? Theme.divider
                    : control.activeFocus || control.popup.visible ? Theme.accent
                    : control.hovered && control.enabled ? Theme.light : Theme.midlight
    }

    popup: Popup {
        y: control.height + 2
        width: control.width
        implicitHeight: Math.min(contentItem.implicitHeight + 2, 320)
        padding: 1
        contentItem: ListView {
            clip: true
            implicitHeight: contentHeight
            model: control.popup.visible ? control.delegateModel : null
            currentIndex: control.highlightedIndex
            ScrollIndicator.vertical: ScrollIndicator {}
        }
        background: Rectangle {
            color: Theme.panel
            border.color: Theme.midlight
            radius: Theme.radius
        }
    }
}
