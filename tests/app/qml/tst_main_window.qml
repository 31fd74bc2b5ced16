import QtQuick 2.15
import QtTest 1.15

// The main window on a real controller; connections go to the in-process virtual lidar.
Item {
    id: top
    width: 1300
    height: 800

    TestCase {
        name: "MainWindow"
        when: windowShown

        property var ui: null
        property var vm: null

        function init() {
            harness.clearFailures();
            harness.setLinkLost(false);
            harness.setSimValue("SN", "QN0001");
            harness.setSimValue("PN", "Quenta-P100");  // the model name in either code passes the model check
            ui = harness.createMainWindow(top);
            verify(ui !== null, "main.qml did not load");
            vm = harness.manager();
        }

        function cleanup() {
            if (vm && vm.IsConnected) vm.Stop();
            harness.destroyMainWindow();
            harness.restoreSettings();
            ui = vm = null;
        }

        function child(name) {
            var found = findChild(ui, name);
            verify(found !== null, "no item named " + name);
            return found;
        }

        function logLines() {
            var log = child("logWindow");
            return Array.from({length: log.lineCount}, (_, i) => log.lineAt(i).kind + " " + log.lineAt(i).line);
        }

        // The value a page shows for a variable, from the window's own copy of the maps.
        function shownValue(name) {
            var rows = [].concat.apply([], [].concat.apply([], ui.snapshot));
            var row = rows.filter(r => r.var_name === name)[0];
            return row === undefined ? undefined : String(row.current_val);
        }

        // Notices are modal: they are closed before clicking and after connecting.
        function connectNow() {
            closeNotices();
            mouseClick(child("connectButton"));
            tryCompare(child("connectButton"), "text", "Disconnect", 20000);
            closeNotices();
        }

        function closeNotices() {
            ["errorInfoWindow", "successInfoWindow", "messageWindow"].forEach(function (name) {
                if (child(name).pending !== undefined) child(name).pending = [];  // queued notices too
                child(name).close();
            });
        }

        function openPage(title) {  // shows the page titled `title`; returns its index
            var page = vm.level1List.indexOf(title);
            verify(page >= 0, "no page " + title);
            child("pageTabs").currentIndex = page;
            return page;
        }

        function typeText(field, text) {  // the way a user does: select all, type
            verify(field !== null && field.enabled, "no editable field");
            field.forceActiveFocus();
            field.selectAll();
            for (var i = 0; i < text.length; ++i) keyClick(text[i]);
            compare(field.text, text);
            return field;
        }

        function save(page) { mouseClick(child("saveButton_" + page)); }

        function selectModelNamed(name) {
            var combo = child("modelCombo");
            combo.currentIndex = combo.find(name);
            verify(combo.currentIndex >= 0, "no model " + name);
            combo.activated(combo.currentIndex);
        }

        function test_model_switch_rebuilds_tabs_and_fields() {
            var tabs = child("pageTabs");
            var quentaPages = vm.level1List;
            compare(tabs.titles, quentaPages.concat(["Monitor", "Log", "Send Command", "Data Stream", "History"]));

            selectModelNamed("Quenta-Lite");
            verify(JSON.stringify(vm.level1List) !== JSON.stringify(quentaPages), "the table did not change");
            compare(tabs.titles, vm.level1List.concat(["Monitor", "Log", "Send Command", "Data Stream", "History"]));
            compare(tabs.currentIndex, 0);
            verify(logLines().indexOf("INFO Current selected model is Quenta-Lite") >= 0);

            // The small sensors get their own page instead of the table's, and neither the
            // maintenance menu nor the log downloads; a serial one asks for the serial ports
            // instead of the address.
            var menuButton = child("maintenanceButton");
            selectModelNamed("Zelto-KTC");
            compare(vm.connectType, 2);
            verify(!tabs.visible && child("zeltoPage").visible && !menuButton.visible);
            // The tab bar is hidden for them; the log page's rows still follow the table.
            tabs.currentIndex = tabs.titles.indexOf("Log");
            verify(!child("logRow_Operation Log").visible);
            compare(findChild(ui, "logRow_Fault Log"), null);
            selectModelNamed("Zelto");
            compare(vm.connectType, 1);
            verify(!tabs.visible && child("zeltoPage").visible && !menuButton.visible);
            verify(child("rs485Field").visible && child("uartField").visible && !child("ipField").visible);
            selectModelNamed("Quenta");
            verify(tabs.visible && !child("zeltoPage").visible && menuButton.visible);
        }

        function test_connect_and_disconnect_drive_light_and_button() {
            var light = child("connectionLight");
            var button = child("connectButton");
            compare(String(light.color), "#ff0000");
            compare(button.text, "Connect");
            var serial = "QN" + Date.now();
            harness.setSimValue("SN", serial);
            mouseClick(button);
            tryCompare(button, "text", "Disconnect", 20000);
            compare(String(light.color), "#00ff6b");
            verify(!child("modelCombo").enabled, "the model can be changed while connected");
            // The first page was read at once: the lidar's serial number is shown.
            tryVerify(() => shownValue("SN") === serial, 10000, "serial number not shown");
            verify(!child("errorInfoWindow").visible, "a matching lidar was reported");

            mouseClick(button);
            tryCompare(button, "text", "Connect", 10000);
            compare(String(light.color), "#ff0000");
            verify(child("modelCombo").enabled);
            compare(shownValue("SN"), "xxxxxxxx");
            // A lidar of another model connects, with a warning.
            harness.setSimValue("SN", "ZZ0001");
            harness.setSimValue("PN", "ZZ-100");
            mouseClick(button);
            tryVerify(() => child("errorInfoWindow").visible, 20000, "no model warning");
            verify(child("errorInfoWindow").message.indexOf("mismatch is detected between the lidar model") >= 0);
        }

        function test_tls_switch_files_and_the_verified_connection() {
            var goodPort = harness.startTlsSim("sensor");
            verify(goodPort > 0, "the TLS sensor did not start");
            verify(!child("tlsFilesButton").visible, "certificate files offered without TLS");
            mouseClick(child("tlsSwitch"));
            verify(vm.tlsEnabled, "the switch did not reach the controller");
            tryVerify(() => child("tlsFilesButton").visible && child("tlsFilesButton").width > 0, 20000);
            waitForRendering(ui);
            mouseClick(child("tlsFilesButton"));
            tryVerify(() => child("tlsFilesPopup").opened, 20000);
            // The popup's rows live in the window's overlay, not under the top bar.
            var caPath = findChild(child("tlsFilesPopup").contentItem, "tlsPath_ca");
            verify(caPath !== null, "no CA row");
            compare(caPath.text, "the system's store");
            vm.tlsCaFile = harness.pkiFile("ca");  // what the dialog's choice does
            compare(caPath.text, harness.pkiFile("ca"));
            child("tlsFilesPopup").close();

            typeText(child("portField"), String(goodPort));
            connectNow();
            tryVerify(() => child("statusText").text.indexOf("TLS verified, issued by Test Sensor CA") >= 0, 20000,
                      "the status bar does not say the connection is verified");
            verify(!child("tlsSwitch").enabled, "TLS can be switched while connected");
        }

        function test_connect_refused_while_an_attempt_runs_and_a_silent_lidar_disconnected() {
            harness.delayCommand(7, 2500);
            var button = child("connectButton");
            mouseClick(button);
            tryVerify(() => vm.GetIsConnectingLidar(), 20000);
            mouseClick(button);
            verify(child("errorInfoWindow").visible);
            compare(child("errorInfoWindow").message, "Is Connecting Lidar... Please wait.");
            tryCompare(button, "text", "Disconnect", 20000);
            // One check every 5 s; the failing one presses Disconnect for the user.
            harness.clearFailures();
            harness.setLinkLost(true);
            tryCompare(button, "text", "Connect", 30000);
            compare(String(child("connectionLight").color), "#ff0000");
            verify(logLines().indexOf("INFO Lidar disconnected") >= 0);
        }

        function test_cancel_and_save() {
            var notice = child("successInfoWindow");
            ui.savePage(0);
            verify(notice.visible);
            compare(notice.message, "Please connect to lidar first");
            harness.setSimValue("Data Port", "2368");
            harness.setSimValue("Destination Mode", "0");
            connectNow();
            var page = openPage("Network");
            harness.resetCounters();
            save(page);
            verify(notice.visible);
            compare(notice.message, "Nothing to be saved");
            closeNotices();
            // Cancel drops the edit and shows the lidar's value again.
            var field = typeText(findChild(child("row_Data Port"), "valueField"), "9");
            mouseClick(child("cancelButton_" + page));
            tryCompare(field, "text", "2368", 20000);
            compare(harness.commandCount(0x2D), 0);

            typeText(field, "2400");
            // An option chosen from a list travels as its index.
            var combo = findChild(child("row_Destination Mode"), "valueCombo");
            verify(combo !== null && combo.enabled);
            combo.currentIndex = 1;
            combo.activated(1);
            save(page);
            tryVerify(() => harness.simValue("Data Port") === "2400", 10000, "Data Port not written");
            compare(harness.simValue("Destination Mode"), "1");
            tryVerify(() => child("successInfoWindow").visible, 10000, "no success notice");
            closeNotices();

            field = typeText(findChild(child("row_Data Port"), "valueField"), "80");
            harness.resetCounters();
            save(page);
            var ask = child("messageWindow");
            verify(ask.visible);
            compare(ask.message, "The Data Port set by the user was detected to be outside the range specified "
                                 + "in the config file. Do you wish to continue?");
            compare(ask.buttonText, "Continue");
            verify(field.warn, "the out-of-range field is not marked");
            ask.close();  // declining sends nothing
            compare(harness.commandCount(0x2D), 0);
            save(page);
            verify(ask.visible);
            mouseClick(child("messageConfirmButton"));
            tryVerify(() => harness.simValue("Data Port") === "80", 10000, "confirmed save not written");
            tryVerify(() => child("successInfoWindow").visible, 10000, "no success notice");
            closeNotices();

            // A secret is masked.
            var secret = findChild(child("row_Access Password"), "valueField");
            compare(secret.echoMode, TextInput.Password);
            compare(field.echoMode, TextInput.Normal);
        }

        function test_field_of_view_boxes() {
            harness.setFov([1000, 0, 0, 0, 0], [36000, 36000, 36000, 36000, 36000]);
            connectNow();
            var page = openPage("Field of View");
            // The page read brings the sensor's angles into the boxes.
            tryCompare(child("fovStart0"), "text", "10.0", 10000);
            compare(child("fovStart0").unread, false);
            typeText(child("fovStart0"), "15");
            keyClick(Qt.Key_Return);
            compare(vm.FovList[0], "15.0");
            // A value out of 0..360 is refused and the box shows the stored one again.
            var end2 = typeText(child("fovEnd2"), "400");
            keyClick(Qt.Key_Return);
            verify(child("errorInfoWindow").visible);
            compare(child("errorInfoWindow").message, "Input value of fov is invalid");
            compare(end2.text, "360.0");
            closeNotices();
            // Switching away and back re-reads the page; the edited angle must still go out.
            openPage("Network");
            openPage("Field of View");
            harness.resetCounters();
            save(page);
            tryVerify(() => harness.commandCount(0x22) > 0, 10000, "no field-of-view write");
            // Channel 0, then the five start angles in hundredths of a degree: 15.00 is 05 DC.
            compare(harness.lastPayloadHex(0x22), "00 05 DC 00 00 00 00 00 00 00 00");
            // A disconnect puts the first box back to 0, which no sensor sent.
            tryCompare(child("fovStart0"), "unread", false, 10000);
            vm.Stop();
            tryCompare(child("fovStart0"), "text", "0.0", 20000);
            compare(child("fovStart0").unread, true);
        }

        function test_values_not_read_from_the_sensor_are_dimmed() {
            var row = child("row_Firmware Version");
            var text = findChild(row, "valueText");
            var unread = "#676b71";
            // The table's default, before any connection.
            compare(row.readNote, "not read from the sensor");
            compare(String(text.color), unread);
            connectNow();
            tryVerify(() => !row.unread, 10000, "the page read left the value dimmed");
            verify(String(text.color) !== unread);
            // Disconnected: the last values read stay, dimmed, with the time of the read.
            vm.Stop();
            tryVerify(() => row.readNote.startsWith("last read from the sensor at "), 20000, row.readNote);
            compare(String(text.color), unread);
        }

        function test_notices_messages_and_log_routing() {
            var err = child("errorInfoWindow");
            vm.setErrorMsg("Set Failed: something");
            vm.setErrorMsg("second");  // waits for the first to be closed
            verify(err.visible);
            compare([err.message, vm.errorMessage], ["Set Failed: something", ""]);
            err.close();
            tryVerify(() => err.visible && err.message === "second", 20000, "second error not shown");
            vm.setSuccessMsg("Done");
            verify(child("successInfoWindow").visible);
            compare([child("successInfoWindow").message, vm.successMessage], ["Done", ""]);
            var ask = child("messageWindow");
            ui.callMessageWindow("Just so you know");
            verify(ask.visible && !ask.asks && ui.pendingSavePage === -1);
            compare(ask.message, "Just so you know");

            // printLog routes by type; an empty message is dropped.
            var before = logLines().length;
            [["plain"], ["bad", "ERROR"], ["careful", "WARNING"], ["47 74", "BYTE"], ["0a 0b", "BYTES"],
             ["odd", "DEBUG"], ["", "ERROR"]].forEach(c => ui.printLog(c[0], c[1]));
            compare(logLines().slice(before),
                    ["INFO plain", "ERROR bad", "WARNING careful", "BYTES 47 74", "BYTES 0a 0b", "INFO odd"]);
        }

        function test_data_stream_names_a_destination_elsewhere_and_sends_data_here() {
            harness.setSimValue("Data Port", String(harness.freeUdpPort()));
            harness.setSimValue("Destination IP", "192.0.2.7");
            connectNow();
            var tabs = child("pageTabs");
            tabs.currentIndex = tabs.titles.indexOf("Data Stream");
            var send = child("streamSendHereButton");
            // Nothing arrives for the quiet period (3 s), then the cause and the remedy.
            tryVerify(() => send.visible, 10000, "no Send data here offered");
            mouseClick(send);
            var ask = child("streamSendHereConfirm");
            verify(ask.visible);
            compare(ask.message, "Change the sensor's Destination IP from 192.0.2.7 to 127.0.0.1?");
            mouseClick(findChild(ask.contentItem, "messageConfirmButton"));
            compare(harness.simValue("Destination IP"), "127.0.0.1");
            tabs.currentIndex = 0;  // the page stops listening when hidden
            verify(!vm.streamMonitor.listening);
            harness.setSimValue("Destination IP", "192.168.1.100");
            harness.setSimValue("Data Port", "2368");
        }

        function test_byte_flow_switch_reaches_the_controller() {
            // The switch only stores a flag; with it on, a read leaves byte lines in the log.
            connectNow();
            var before = logLines().length;
            mouseClick(child("bytesFlowSwitch"));
            verify(child("bytesFlowSwitch").checked);
            vm.GetLidarModuleInfo(0);
            tryVerify(() => logLines().slice(before).some(l => l.indexOf("BYTES") === 0), 10000,
                      "no byte lines after switching the byte flow on");
        }

        function test_command_page_sends_and_recalls() {
            connectNow();
            var tabs = child("pageTabs");
            tabs.currentIndex = tabs.titles.indexOf("Send Command");
            var code = child("commandCodeField");
            var payload = child("commandPayloadField");
            harness.resetCounters();
            typeText(code, "0x07");
            mouseClick(child("commandSendButton"));
            compare(harness.commandCount(7), 1);
            compare([child("returnHeaderText").text, child("returnPayloadText").text], ["47 74 07 00 00 00 00 00", ""]);
            compare([child("historyRow_0").codeText, child("historyRow_0").payloadText], ["07", ""]);

            typeText(code, "8");
            typeText(payload, "0x01 02");
            keyClick(Qt.Key_Return);  // Enter sends too
            compare(harness.commandCount(8), 1);
            compare([child("historyRow_0").codeText, child("historyRow_0").payloadText], ["8", "01 02"]);

            // The older row, second from the top, fills both fields again.
            code.text = "";
            payload.text = "ff";
            mouseClick(child("historyRow_1"));
            compare([code.text, payload.text], ["07", ""]);
            mouseClick(child("historyRow_0"));
            compare([code.text, payload.text], ["8", "01 02"]);
        }

        function test_restart_menu_and_log_rows_follow_the_table() {
            var menuButton = child("maintenanceButton");
            verify(menuButton.visible, "Quenta has Restart and Reset");
            mouseClick(menuButton);
            var menu = child("maintenanceMenu");
            tryCompare(menu, "opened", true, 20000);
            compare(child("restartEntry").text, "Restart");
            compare(child("resetEntry").text, "Reset All Settings");
            compare([child("restartEntry").height, child("resetEntry").height], [42, 42]);
            verify(!child("restartEntry").enabled, "maintenance offered while disconnected");
            menu.close();

            // A reset waits for the user's agreement; declining sends nothing.
            harness.resetCounters();
            menuButton.resetRequested();
            var ask = child("messageWindow");
            verify(ask.visible && ask.asks);
            compare(ask.buttonText, "Reset");
            ask.close();
            compare(harness.commandCount(0x25), 0);

            // The log page offers the table's logs.
            var tabs = child("pageTabs");
            tabs.currentIndex = tabs.titles.indexOf("Log");
            verify(child("logRow_Operation Log").visible);
            verify(findChild(ui, "logRow_Fault Log") !== null && findChild(ui, "logRow_Event Log") !== null);
            verify(!findChild(child("logRow_Fault Log"), "downloadButton").enabled, "download offered while disconnected");
        }
    
        function test_reset_after_agreement_and_a_log_download_from_its_row() {
            harness.setRestartDelay(300);
            harness.setLogSize(200000);
            connectNow();
            // Reset: only once the user agrees; the lidar restarts and the light goes red.
            var before = harness.resetCount();
            child("maintenanceButton").resetRequested();
            var ask = child("messageWindow");
            verify(ask.visible && ask.asks);
            mouseClick(child("messageConfirmButton"));
            tryCompare(child("connectButton"), "text", "Connect", 10000);
            tryVerify(() => harness.resetCount() === before + 1, 20000, "the lidar did not reset");
            closeNotices();
            tryVerify(() => harness.listening(), 20000, "the lidar did not come back");
            connectNow();

            // A log: the row asks for a folder, then the download runs and the user is told.
            var tabs = child("pageTabs");
            tabs.currentIndex = tabs.titles.indexOf("Log");
            var button = findChild(child("logRow_Fault Log"), "downloadButton");
            verify(button.enabled);
            mouseClick(button);
            var dialog = child("logFolderDialog");
            compare(dialog.logName, "Fault Log");
            dialog.close();
            var folder = harness.makeFolder();
            ui.downloadLog(folder, "Fault Log");  // what the dialog does once a folder is chosen
            tryVerify(() => child("successInfoWindow").visible, 10000, "no success notice");
            compare(child("successInfoWindow").message, "Fault Log download successful.");
            verify(!vm.IsDownloadLog);
            verify(button.enabled);
            compare(harness.filesIn(folder, "Fault Log_").length, 1);  // in the folder chosen
            closeNotices();
        }

        // The upgrade area of the model page that has one, its page shown.
        function upgradeArea() {
            var page = vm.level2List.findIndex(entries => entries.some(e => Number(e[1]) === 4));
            verify(page >= 0, "the model has no upgrade row");
            child("pageTabs").currentIndex = page;
            var area = findChild(ui, "upgradeArea");
            verify(area !== null, "no upgrade area");
            tryVerify(() => area.visible && area.width > 0, 20000);
            return area;
        }

        function test_upgrade_area_refuses_dropped_files() {
            var area = upgradeArea();
            compare(findChild(area, "upgradePercent").text, "0.00%");
            var err = child("errorInfoWindow");
            harness.dropUrls(findChild(area, "upgradeDropArea"), ["file:///tmp/firmware.bin"]);
            tryVerify(() => err.visible, 20000, "a .bin file was not refused");
            compare(err.message, "Upgrade package rejected: it has to be a .patch file");
            verify(!vm.IsUpgrading);
            err.close();
            // A .patch file while not connected reaches the controller, which refuses it.
            harness.dropUrls(findChild(area, "upgradeDropArea"), ["file:///tmp/FIRMWARE.PATCH"]);
            tryVerify(() => err.visible, 20000, "the controller's refusal was not shown");
            verify(err.message.indexOf("Upgrade not started") === 0, err.message);
            verify(!vm.IsUpgrading);
            // The page with the upgrade area has no Cancel/Save row.
            compare(findChild(ui, "saveButton_" + child("pageTabs").currentIndex).visible, false);
        }
    }
}
