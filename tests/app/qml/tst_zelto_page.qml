import QtQuick 2.15
import QtTest 1.15

// The small sensors' page: which rows each model shows, the destination fields and the
// fault-code list. It runs on the real controller of the harness, not connected.
Item {
    id: top
    width: 1300
    height: 900

    TestCase {
        name: "ZeltoPage"
        when: windowShown

        property var page: null

        function init() {
            verify(harness.createMainWindow(top) !== null);
            var component = Qt.createComponent("qrc:/Qml/assembly/Zelto.qml");
            verify(component.status === Component.Ready, component.errorString());
            page = component.createObject(top, {manager: harness.manager(), selectedModel: "Zelto", width: 1300,
                                                height: 900});
            verify(page !== null);
        }

        function cleanup() {
            page.destroy();
            page = null;
            harness.destroyMainWindow();
        }

        function child(name) {
            var found = findChild(page, name);
            verify(found !== null, "no item named " + name);
            return found;
        }

        function test_rows_shown_per_model_data() {
            return [
                {tag: "Zelto", model: "Zelto", imu: false, destination: false},
                {tag: "Zelto-KTC", model: "Zelto-KTC", imu: false, destination: true},
                {tag: "Marvo-KTC", model: "Marvo-KTC", imu: true, destination: true},
            ];
        }

        function test_rows_shown_per_model(data) {
            page.selectedModel = "";
            child("destinationIpField").text = "stale";
            page.selectedModel = data.model;
            compare(child("rowImuRange").visible, data.imu);
            compare(child("rowDestination").visible, data.destination);
            ["rowBaudRate", "rowStandby", "rowSpinRate", "rowReturnMode", "rowCalibration", "rowFunctionSafety"]
                .forEach(function (name) { verify(child(name).visible, name); });
            // The sections stand in their order down the page.
            var order = ["sectionLidarInfo", "sectionLidarFunction", "sectionUpgrade", "sectionLog"];
            for (var i = 1; i < order.length; ++i)
                verify(child(order[i - 1]).y < child(order[i]).y, order[i]);
            // Not connected: the destination fields are emptied, whatever the model.
            compare(child("destinationIpField").text, "");
            compare(child("destinationPortField").text, "");
            // The information rows start as placeholders.
            compare(child("lidarInfo_1").text, "xxxxxxxx");
        }

        function test_destination_and_fault_code_texts() {
            compare(page.destinationTexts(["10.0.0.9", "4000"]), ["10.0.0.9", "4000"]);
            compare(page.destinationTexts(["10.0.0.9"]), ["xx.xx.xx.xx", "xx"]);
            compare(page.destinationTexts([]), ["xx.xx.xx.xx", "xx"]);
            compare(page.faultCodeList(["Normal"]), ["None"]);
            compare(page.faultCodeList(["Warning", "0x102", "0x0A"]), ["0x102", "0x0A"]);
            compare(child("faultStateText").text, "Normal");
            compare(child("faultCodeCombo").model, ["None"]);
        }
    }
}
