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
        property var ui: null

        SignalSpy { id: logSpy; signalName: "logRequested" }

        function init() {
            ui = harness.createMainWindow(top);
            verify(ui !== null);
            var component = Qt.createComponent("qrc:/Qml/assembly/Zelto.qml");
            verify(component.status === Component.Ready, component.errorString());
            page = component.createObject(top, {manager: harness.manager(), selectedModel: "Zelto", width: 1300,
                                                height: 900});
            verify(page !== null);
        }

        function cleanup() {
            logSpy.clear();
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

        // The page's sensor actions, the calibration download among them, need a sensor.
        function test_sensor_actions_follow_the_connection() {
            var download = child("calibrationDownloadButton");
            verify(!download.enabled, "offered while disconnected");
            // A controller as far as the page's enablement looks at it.
            var link = (connected) => ({IsConnected: connected, IsUpgrading: false, ZeltoLidarInfo: [], ZeltoLidarVersionInfo: []});
            page.manager = link(true);
            verify(download.enabled);
            page.manager = link(false);
            verify(!download.enabled);
            page.manager = harness.manager();
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
    
        // The upgrade area scrolled into the window, so that a drop reaches it.
        function upgradeDropArea() {
            var area = child("zeltoUpgradeArea");
            var flick = area.parent;
            while (flick && flick.contentY === undefined) flick = flick.parent;
            flick.contentY = Math.max(0, area.mapToItem(flick.contentItem, 0, 0).y - 50);
            var drop = findChild(area, "upgradeDropArea");
            tryVerify(() => drop.mapToItem(top, 0, 0).y + drop.height < top.height, 20000);
            return drop;
        }

        function test_upgrade_modes_per_model_data() {
            return [
                {tag: "Zelto", model: "Zelto", modes: ["APP+FPGA", "PBL"], values: [0, 1]},
                {tag: "Zelto-KTC", model: "Zelto-KTC", modes: ["APP+FPGA", "PBL"], values: [0, 1]},
                {tag: "Marvo-KTC", model: "Marvo-KTC", modes: ["Lidar", "Junction Box"], values: [0, 2]},
            ];
        }

        function test_upgrade_modes_per_model(data) {
            page.selectedModel = data.model;
            compare(child("upgradeModeCombo").model, data.modes);
            compare(child("upgradeModeCombo").currentIndex, 0);
            compare([page.upgradeModeValue(0), page.upgradeModeValue(1)], data.values);
            // Not upgrading: neither bar nor note.
            verify(!findChild(child("zeltoUpgradeArea"), "upgradeProgressRow").visible);
            verify(!findChild(child("zeltoUpgradeArea"), "upgradeNote").visible);
        }

        // A dropped file: refused on the page unless .bin or .patch, otherwise handed to the
        // entry of the model and mode, which (not connected) refuses with its own words.
        function test_dropped_files_reach_the_entry_of_model_and_mode_data() {
            return [
                {tag: "Zelto .bin", model: "Zelto", mode: 0, file: "fw.bin",
                 error: "lidar is not connected, or lidar is upgrade"},
                {tag: "Zelto PBL .PATCH", model: "Zelto", mode: 1, file: "PBL.PATCH",
                 error: "lidar is not connected, or lidar is upgrade"},
                {tag: "Marvo Lidar", model: "Marvo-KTC", mode: 0, file: "marvo.bin",
                 error: "lidar is not connected, or lidar is upgrading"},
                {tag: "Marvo Junction Box", model: "Marvo-KTC", mode: 1, file: "box.bin",
                 error: "lidar is not connected, or lidar is upgrade"},
                {tag: "a .txt file", model: "Zelto", mode: 0, file: "notes.txt", error: ""},
                {tag: "a .bin.txt file", model: "Marvo-KTC", mode: 0, file: "fw.bin.txt", error: ""},
            ];
        }

        function test_dropped_files_reach_the_entry_of_model_and_mode(data) {
            page.selectedModel = data.model;
            var combo = child("upgradeModeCombo");
            combo.currentIndex = data.mode;
            combo.activated(data.mode);
            logSpy.target = page;
            var err = findChild(ui, "errorInfoWindow");
            err.close();
            harness.dropUrls(upgradeDropArea(), ["file:///tmp/" + data.file]);
            if (data.error === "") {
                tryCompare(logSpy, "count", 1, 20000);
                compare(logSpy.signalArguments[0][0], "Rejected, need a *.bin or *.patch file");
                verify(!err.visible, "the page's own refusal is no error notice");
            } else {
                tryVerify(() => err.visible, 20000, "the controller's refusal was not shown");
                compare(err.message, data.error);
                compare(logSpy.count, 0);
            }
            verify(!harness.manager().IsUpgrading);
        }
    }
}
