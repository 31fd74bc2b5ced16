import QtQuick 2.15
import QtTest 1.15

// The main window on a real controller; connections go to the in-process virtual lidar.
Item {
    id: top
    width: 1300
    height: 800

    TestCase {
        id: tc
        name: "MainWindow"
        when: windowShown

        property var ui: null
        property var vm: null

        function init() {
            harness.clearFailures();
            harness.setLinkLost(false);
            ui = harness.createMainWindow(top, "");
            verify(ui !== null, "main.qml did not load");
            vm = harness.managerOf(ui);
        }

        function cleanup() {
            if (vm && vm.IsConnected) vm.Stop();
            harness.destroyMainWindow(ui);
            ui = null;
            vm = null;
        }

        function child(name) {
            var found = findChild(ui, name);
            verify(found !== null, "no item named " + name);
            return found;
        }

        function logLines() {
            var log = child("logWindow");
            var out = [];
            for (var i = 0; i < log.lineCount; ++i) out.push(log.lineAt(i).kind + " " + log.lineAt(i).line);
            return out;
        }

        // The value a page shows for a variable, from the window's own copy of the maps.
        function shownValue(name) {
            var maps = ui.snapshot;
            for (var m = 0; m < maps.length; ++m)
                for (var g = 0; g < maps[m].length; ++g)
                    for (var k = 0; k < maps[m][g].length; ++k)
                        if (maps[m][g][k].var_name === name) return String(maps[m][g][k].current_val);
            return undefined;
        }

        function connectNow() {
            var button = child("connectButton");
            mouseClick(button);
            tryCompare(button, "text", "Disconnect", 20000);
        }

        function closeNotices() {
            var names = ["errorInfoWindow", "successInfoWindow", "messageWindow"];
            for (var i = 0; i < names.length; ++i) {
                var w = findChild(ui, names[i]);
                if (w) {
                    if (w.pending !== undefined) w.pending = [];
                    w.close();
                }
            }
        }

        function test_started_without_model_argument() {
            var combo = child("modelCombo");
            compare(combo.currentText, "Quenta");
            verify(combo.enabled);
            compare(vm.getVMNowName(), "");
            compare(child("titleText").text, "Varkel");
        }

        function test_model_switch_rebuilds_tabs_and_fields() {
            var tabs = child("pageTabs");
            var quentaPages = vm.level1List;
            compare(tabs.titles, quentaPages.concat(["Log"]));

            var combo = child("modelCombo");
            var lite = combo.find("Quenta-Lite");
            verify(lite >= 0);
            combo.currentIndex = lite;
            combo.activated(lite);
            verify(JSON.stringify(vm.level1List) !== JSON.stringify(quentaPages), "the table did not change");
            compare(tabs.titles, vm.level1List.concat(["Log"]));
            compare(tabs.currentIndex, 0);
            verify(logLines().indexOf("INFO Current selected model is Quenta-Lite") >= 0);

            // A serial model: no table pages, the serial port fields instead of the address.
            combo.currentIndex = combo.find("Zelto");
            combo.activated(combo.currentIndex);
            compare(vm.connectType, 1);
            compare(tabs.titles, ["Log"]);
            verify(child("rs485Field").visible);
            verify(child("uartField").visible);
            verify(!child("ipField").visible);
        }

        function test_connect_and_disconnect_drive_light_and_button() {
            var light = child("connectionLight");
            var button = child("connectButton");
            var combo = child("modelCombo");
            compare(String(light.color), "#ff0000");
            compare(button.text, "Connect");

            var serial = "QN" + Date.now();
            harness.setSimValue("SN", serial);
            connectNow();
            compare(String(light.color), "#00ff6b");
            verify(!combo.enabled, "the model can be changed while connected");
            // The first page was read at once: the lidar's serial number is shown.
            tryCompare(tc, "snShown", serial, 10000);
            closeNotices();

            mouseClick(button);
            tryCompare(button, "text", "Connect", 10000);
            compare(String(light.color), "#ff0000");
            verify(combo.enabled);
            compare(shownValue("SN"), "xxxxxxxx");
        }
        property string snShown: ui ? (ui.snapshot, shownValue("SN") || "") : ""

        function test_model_check_after_connecting() {
            harness.setSimValue("SN", "ZZ0001");
            harness.setSimValue("PN", "ZZ-100");
            connectNow();
            var err = child("errorInfoWindow");
            tryVerify(function () { return err.visible; }, 10000);
            verify(err.message.indexOf("mismatch is detected between the lidar model") >= 0, err.message);
            closeNotices();
            vm.Stop();

            // The model name in either code is enough.
            harness.setSimValue("SN", "QN0001");
            harness.setSimValue("PN", "Quenta-P100");
            connectNow();
            wait(300);
            verify(!err.visible, "a matching lidar was reported: " + err.message);
        }

        function test_connection_check_disconnects_a_silent_lidar() {
            connectNow();
            closeNotices();
            harness.setLinkLost(true);
            // One check every 5 s; the failing one presses Disconnect for the user.
            tryCompare(child("connectButton"), "text", "Connect", 30000);
            compare(String(child("connectionLight").color), "#ff0000");
            verify(logLines().indexOf("INFO Lidar disconnected") >= 0);
        }

        function test_connect_refused_while_an_attempt_runs() {
            harness.delayCommand(7, 2500);
            var button = child("connectButton");
            mouseClick(button);
            tryVerify(function () { return vm.GetIsConnectingLidar(); }, 5000);
            mouseClick(button);
            var err = child("errorInfoWindow");
            verify(err.visible);
            compare(err.message, "Is Connecting Lidar... Please wait.");
            tryCompare(button, "text", "Disconnect", 20000);
        }

        function test_save_needs_a_connection() {
            ui.savePage(0);
            var notice = child("successInfoWindow");
            verify(notice.visible);
            compare(notice.message, "Please connect to lidar first");
        }

        // The page titled `title`, shown; returns its index.
        function openPage(title) {
            var tabs = child("pageTabs");
            var page = vm.level1List.indexOf(title);
            verify(page >= 0, "no page " + title);
            tabs.currentIndex = page;
            return page;
        }

        // Replaces the text of a row's field the way a user does: select all, type.
        function typeInto(rowName, text) {
            var field = findChild(child(rowName), "valueField");
            verify(field !== null && field.enabled, rowName + " has no editable field");
            field.forceActiveFocus();
            field.selectAll();
            for (var i = 0; i < text.length; ++i) keyClick(text[i]);
            compare(field.text, text);
            return field;
        }

        function test_save_with_nothing_pending() {
            if (!ui.canSave) skip("this controller has no editing functions");
            connectNow();
            closeNotices();
            var page = openPage("Network");
            harness.resetCounters();
            mouseClick(child("saveButton_" + page));
            var notice = child("successInfoWindow");
            verify(notice.visible);
            compare(notice.message, "Nothing to be saved");
            compare(harness.commandCount(0x25), 0);
        }

        function test_edit_and_save_reach_the_lidar() {
            if (!ui.canSave) skip("this controller has no editing functions");
            harness.setSimValue("Data Port", "2368");
            harness.setSimValue("Destination Mode", "0");
            connectNow();
            closeNotices();
            var page = openPage("Network");
            typeInto("row_Data Port", "2400");
            // An option chosen from a list travels as its index.
            var combo = findChild(child("row_Destination Mode"), "valueCombo");
            verify(combo !== null && combo.enabled);
            combo.currentIndex = 1;
            combo.activated(1);
            mouseClick(child("saveButton_" + page));
            tryCompare(tc, "simDataPort", "2400", 10000);
            compare(harness.simValue("Destination Mode"), "1");
            closeNotices();
        }
        property string simDataPort: ""
        Timer {
            interval: 100
            running: tc.ui !== null
            repeat: true
            onTriggered: tc.simDataPort = harness.simValue("Data Port")
        }

        function test_cancel_shows_the_lidars_values_again() {
            if (!ui.canSave) skip("this controller has no editing functions");
            harness.setSimValue("Noise Filter Level", "5");
            connectNow();
            closeNotices();
            var page = openPage("Operation");
            var field = typeInto("row_Noise Filter Level", "9");
            harness.resetCounters();
            mouseClick(child("cancelButton_" + page));
            tryCompare(field, "text", "5", 5000);
            compare(harness.commandCount(0x2B), 0);
        }

        function test_field_of_view_boxes() {
            if (!ui.canEditFov) skip("this controller has no field-of-view edit");
            connectNow();
            closeNotices();
            var page = openPage("Field of View");
            var start0 = child("fovStart0");
            verify(start0.enabled);
            start0.forceActiveFocus();
            start0.selectAll();
            keyClick("1");
            keyClick("5");
            keyClick(Qt.Key_Return);
            compare(vm.FovList[0], "15.0");
            // A value out of 0..360 is refused and the box shows the stored one again.
            var end2 = child("fovEnd2");
            end2.forceActiveFocus();
            end2.selectAll();
            keyClick("4");
            keyClick("0");
            keyClick("0");
            keyClick(Qt.Key_Return);
            var err = child("errorInfoWindow");
            verify(err.visible);
            compare(err.message, "Input value of fov is invalid");
            compare(end2.text, "360.0");
            closeNotices();
            harness.resetCounters();
            mouseClick(child("saveButton_" + page));
            tryVerify(function () { return harness.commandCount(0x22) > 0; }, 10000, "no field-of-view write");
        }

        function test_out_of_range_asks_before_saving() {
            if (!ui.canSave) skip("this controller has no editing functions");
            harness.setSimValue("Data Port", "2368");
            connectNow();
            closeNotices();
            var page = openPage("Network");
            var field = typeInto("row_Data Port", "80");
            harness.resetCounters();
            mouseClick(child("saveButton_" + page));
            var ask = child("messageWindow");
            verify(ask.visible);
            compare(ask.message, "The Data Port set by the user was detected to be outside the range specified "
                                 + "in the config file. Do you wish to continue?");
            compare(ask.buttonText, "Continue");
            verify(field.warn, "the out-of-range field is not marked");
            // Declining sends nothing.
            ask.close();
            compare(harness.commandCount(0x25), 0);
            // Confirming saves anyway.
            mouseClick(child("saveButton_" + page));
            verify(ask.visible);
            mouseClick(child("messageConfirmButton"));
            tryCompare(tc, "simDataPort", "80", 10000);
        }

        function test_notices_from_the_controller_are_shown_then_cleared() {
            vm.setErrorMsg("Set Failed: something");
            var err = child("errorInfoWindow");
            verify(err.visible);
            compare(err.message, "Set Failed: something");
            compare(vm.errorMessage, "");
            // A second one waits for the first to be closed.
            vm.setErrorMsg("second");
            compare(err.message, "Set Failed: something");
            err.close();
            tryCompare(err, "message", "second", 2000);
            tryCompare(err, "visible", true, 2000);

            vm.setSuccessMsg("Done");
            var ok = child("successInfoWindow");
            verify(ok.visible);
            compare(ok.message, "Done");
            compare(vm.successMessage, "");
        }

        function test_log_routing_by_type() {
            var log = child("logWindow");
            var before = log.lineCount;
            ui.printLog("plain");
            ui.printLog("bad", "ERROR");
            ui.printLog("careful", "WARNING");
            ui.printLog("47 74", "BYTE");
            ui.printLog("0a 0b", "BYTES");
            ui.printLog("odd", "DEBUG");
            ui.printLog("", "ERROR");
            compare(log.lineCount, before + 6);
            var kinds = [];
            for (var i = before; i < log.lineCount; ++i) kinds.push(log.lineAt(i).kind);
            compare(kinds, ["INFO", "ERROR", "WARNING", "BYTES", "BYTES", "INFO"]);
            // The controller's log signal lands here too.
            vm.InitConfigFileParser("Quenta");
            connectNow();
            verify(logLines().indexOf("INFO Lidar connected") >= 0);
        }

        function test_message_window_texts() {
            var ask = child("messageWindow");
            ui.callMessageWindow("");
            verify(!ask.visible);
            ui.callMessageWindow("Just so you know");
            verify(ask.visible);
            compare(ask.message, "Just so you know");
            verify(!ask.asks);
            ask.close();
            ui.callMessageWindow("Some item ", "Continue", 2);
            compare(ask.message, "The Some item set by the user was detected to be outside the range specified in "
                                 + "the config file. Do you wish to continue?");
            verify(ask.asks);
            compare(ui.pendingSavePage, 2);
            ask.close();
        }

        function test_byte_flow_switch_reaches_the_controller() {
            // The switch only stores a flag; with it on, a read leaves byte lines in the log.
            var sw = child("bytesFlowSwitch");
            connectNow();
            closeNotices();
            var before = logLines().length;
            mouseClick(sw);
            verify(sw.checked);
            vm.GetLidarModuleInfo(0);
            tryVerify(function () {
                var lines = logLines();
                for (var i = before; i < lines.length; ++i)
                    if (lines[i].indexOf("BYTES") === 0) return true;
                return false;
            }, 10000, "no byte lines after switching the byte flow on");
        }
    }

    TestCase {
        name: "StartedForOneModel"
        when: windowShown

        function test_module_argument_locks_the_model() {
            var ui = harness.createMainWindow(top, "Quenta-Lite");
            var vm = harness.managerOf(ui);
            var combo = findChild(ui, "modelCombo");
            compare(vm.LidarModelList, ["Quenta-Lite"]);
            compare(combo.currentText, "Quenta-Lite");
            verify(!combo.enabled);
            compare(findChild(ui, "pageTabs").titles, vm.level1List.concat(["Log"]));
            harness.destroyMainWindow(ui);
        }

        function test_unknown_module_leaves_the_default() {
            var ui = harness.createMainWindow(top, "NoSuchModel");
            var vm = harness.managerOf(ui);
            var combo = findChild(ui, "modelCombo");
            compare(combo.currentText, "Quenta");
            verify(combo.enabled);
            compare(vm.getVMNowName(), "");
            harness.destroyMainWindow(ui);
        }
    }
}
