import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import "assembly"

// The main user interface. It holds no lidar logic: it binds to the controller
// `varkel_manager`, calls its invokables and turns its outcomes into notices and log lines.
Rectangle {
    id: root
    objectName: "varkelRoot"
    width: 1300
    height: 800
    color: Theme.window

    readonly property int connectType: varkel_manager.connectType
    readonly property bool connected: varkel_manager.IsConnected
    readonly property var pageTitles: connectType === 0 ? varkel_manager.level1List : []
    readonly property var pageEntries: varkel_manager.level2List
    readonly property int pageCount: pageTitles.length
    readonly property int currentPage: tabs.currentIndex
    readonly property string selectedModel: topBar.selectedModel
    // Values as of the last read, and as of the last timer round.
    property var snapshot: varkel_manager.myMap
    property var liveMap: varkel_manager.myMap
    // Names the range check reported for the page being saved.
    property var outOfRangeNames: []
    property int pendingSavePage: -1
    property string lastLogText: ""
    property string lastLogType: "INFO"
    // What the loaded table offers beyond its pages; looked up again on every model change.
    property bool hasMaintenanceMenu: false
    property bool hasOperationLog: false
    // The log whose download this window started, for its row's busy state.
    property string activeLogDownload: ""
    // A question of the message window waiting for its answer: "reset", or "" for a save.
    property string pendingAction: ""
    readonly property bool lineIdle: connected && !varkel_manager.IsUpgrading && !varkel_manager.IsDownloadLog

    // Writing comes with the controller's editing functions; without them pages are read-only.
    readonly property bool canWrite: typeof varkel_manager.SetText === "function"
    readonly property bool canSave: canWrite && typeof varkel_manager.Run === "function"
                                    && typeof varkel_manager.getSetMapSize === "function"
                                    && typeof varkel_manager.CheckModuleVarsWithinRange === "function"
    readonly property bool canEditFov: typeof varkel_manager.SetMultiFovConfig === "function"
    readonly property bool canMaintain: typeof varkel_manager.Restart === "function"
                                        && typeof varkel_manager.Reset === "function"
    readonly property bool canDownloadLogs: typeof varkel_manager.DownloadOperationLog === "function"
                                            && typeof varkel_manager.DownloadLog === "function"

    Component.onCompleted: refreshTableFunctions()

    // ---- functions every page uses ---------------------------------------------------

    function callMessageWindow(msg, btn_text, module_name) {
        if (btn_text === undefined) btn_text = "OK";
        if (module_name === undefined) module_name = "";
        if (!msg) return;
        if (btn_text === "Continue" && module_name !== "") {
            pendingSavePage = Number(module_name);
            messageWindow.ask("The " + msg + "set by the user was detected to be outside the range specified "
                              + "in the config file. Do you wish to continue?", btn_text);
        } else {
            pendingSavePage = -1;
            messageWindow.ask(msg, btn_text);
        }
        pendingAction = "";
    }

    function callErrorInfoWindow(msg) {
        if (!msg) return;
        errorInfoWindow.show(msg);
    }

    function callSuccessInfoWindow(msg) {
        if (!msg) return;
        successInfoWindow.show(msg);
    }

    function printLog(msg, type) {
        if (type === undefined) type = "INFO";
        if (!msg) return;
        switch (type) {
        case "ERROR":
            logWindow.printError(msg);
            break;
        case "WARNING":
            logWindow.printWarning(msg);
            break;
        case "BYTES":
        case "BYTE":
            logWindow.printBytes(msg);
            break;
        default:
            logWindow.printInfo(msg);
            type = "INFO";
        }
        lastLogText = msg;
        lastLogType = type;
    }

    // ---- page actions ------------------------------------------------------------------

    // Edits are kept over reads until they are written or dropped, so Cancel drops them
    // first; the read then shows the lidar's own values again.
    function cancelPage(page) {
        if (typeof varkel_manager.ClearSetMap === "function") varkel_manager.ClearSetMap();
        outOfRangeNames = [];
        varkel_manager.GetLidarModuleInfo(page);
    }

    function savePage(page) {
        if (!varkel_manager.IsConnected) {
            callSuccessInfoWindow("Please connect to lidar first");
            return;
        }
        if (varkel_manager.getSetMapSize() === 0) {
            callSuccessInfoWindow("Nothing to be saved");
            return;
        }
        // The check reports each failing name through someVarOutOfRange while it runs.
        outOfRangeNames = [];
        if (!varkel_manager.CheckModuleVarsWithinRange(page)) {
            var names = outOfRangeNames.length > 0 ? outOfRangeNames.join(", ") + " " : "Some item ";
            callMessageWindow(names, "Continue", page);
            return;
        }
        runSave(page);
    }

    function runSave(page) {
        varkel_manager.Run(page);
        varkel_manager.GetLidarModuleInfo(page);
        outOfRangeNames = [];
    }

    function pressConnect() {
        if (varkel_manager.GetIsConnectingLidar()) {
            callErrorInfoWindow("Is Connecting Lidar... Please wait.");
            return;
        }
        if (varkel_manager.IsConnected) {
            if (varkel_manager.IsUpgrading) {
                callErrorInfoWindow("Disconnect REJECTED. Lidar is upgrading.");
                return;
            }
            varkel_manager.Stop();
            checkTimer.stop();
            return;
        }
        if (varkel_manager.ConnectLidar()) {
            loading.text = "Connecting to lidar...";
            loading.visible = true;
            loadingPoll.ticks = 0;
            loadingPoll.start();
        }
    }

    function checkConnectedModel() {
        var pn = varkel_manager.getLidarPN();
        var sn = varkel_manager.getLidarSN();
        var model = selectedModel;
        var head = model.substring(0, 2);
        if (pn !== "" && sn !== "") {
            if (!(pn.indexOf(model) >= 0 || sn.indexOf(model) >= 0 || pn.indexOf(head) >= 0 || sn.indexOf(head) >= 0)) {
                callErrorInfoWindow("WARNING: Please note that a mismatch is detected between the lidar model on the "
                                    + "connection and the one selected. Some functions of VK may be in error.");
            }
        } else if (pn !== "xxxxxx" || sn !== "xxxxxx") {
            callErrorInfoWindow("WARNING: There is a problem with the PN or SN code of the device you are connecting to.");
        } else {
            callErrorInfoWindow("WARNING: Empty PN or SN code detected. Please check your device.");
        }
    }

    function selectModel(model) {
        printLog("Current selected model is " + model, "INFO");
        varkel_manager.InitConfigFileParser(model);
        varkel_manager.UpdateUI();
    }

    function showPage(page) {
        // The window's own pages (Monitor, Log...) show no table values: none are refreshed.
        varkel_manager.setModuleIndexUse(page >= 0 && page < pageCount ? page : -1);
        if (page < 0 || page >= pageCount) return;
        if (varkel_manager.IsConnected && connectType === 0) varkel_manager.GetLidarModuleInfo(page);
    }

    function refreshTableFunctions() {
        var has = function (name) { return varkel_manager.CheckVarExistsInConfigFileByName(name); };
        hasMaintenanceMenu = varkel_manager.connectType === 0 && (has("Restart") || has("Reset"));
        hasOperationLog = has("Operation Log");
    }

    // ---- maintenance and logs ----------------------------------------------------------

    function restartLidar() {
        if (varkel_manager.Restart() === 0) callSuccessInfoWindow("Lidar restart.");
    }

    // A reset erases the lidar's configuration, so it is only sent once the user agrees.
    function askReset() {
        messageWindow.ask("Reset All Settings erases the configuration of the lidar and returns every setting to "
                          + "its factory value; the lidar then restarts. Do you wish to continue?", "Reset");
        pendingSavePage = -1;
        pendingAction = "reset";
    }

    function resetLidar() {
        if (varkel_manager.Reset() === 0) callSuccessInfoWindow("Lidar reset.");
    }

    function downloadOperationLog(fileUrl) {
        activeLogDownload = "Operation Log";
        varkel_manager.DownloadOperationLog(fileUrl);
    }

    function downloadLog(folderUrl, name) {
        activeLogDownload = name;
        varkel_manager.DownloadLog(folderUrl, name);
    }

    // ---- the controller's signals ------------------------------------------------------

    Connections {
        target: varkel_manager

        function onSendLogMessage(msg, type) { root.printLog(msg, type); }

        function onErrorMessageChanged() {
            var msg = varkel_manager.errorMessage;
            if (msg === "") return;
            loading.visible = false;
            root.callErrorInfoWindow(msg);
            varkel_manager.setErrorMsg("");
        }

        function onSuccessMessageChanged() {
            var msg = varkel_manager.successMessage;
            if (msg === "") return;
            root.callSuccessInfoWindow(msg);
            varkel_manager.setSuccessMsg("");
        }

        function onSomeVarOutOfRange(var_name) {
            var names = root.outOfRangeNames.slice();
            if (names.indexOf(var_name) < 0) names.push(var_name);
            root.outOfRangeNames = names;
        }

        function onIsConnectedChanged() {
            loading.visible = false;
            if (!varkel_manager.IsConnected) {
                checkTimer.stop();
                return;
            }
            checkTimer.start();
            if (root.connectType === 0) {
                varkel_manager.GetLidarModuleInfo(0);
                root.checkConnectedModel();
                if (root.currentPage < root.pageCount) varkel_manager.GetLidarModuleInfo(root.currentPage);
            }
        }

        function onMyTimerMapChanged() { root.liveMap = varkel_manager.myMap; }
        function onMyMapChanged() { root.liveMap = varkel_manager.myMap; }
        function onLidarClearModel() { root.outOfRangeNames = []; }
        function onLidarModelChanged() { root.refreshTableFunctions(); }
        function onConnectTypeChanged() { root.refreshTableFunctions(); }
        function onLidarShowModel() {
            tabs.currentIndex = 0;
            root.showPage(0);
        }
    }

    // While connected: probe every 5 s and disconnect for the user when the lidar is gone.
    Timer {
        id: checkTimer
        objectName: "connectionCheckTimer"
        interval: 5000
        repeat: true
        onTriggered: {
            if (!varkel_manager.IsConnected || varkel_manager.IsUpgrading || varkel_manager.IsDownloadLog) return;
            if (!varkel_manager.CheckLidarConnection()) {
                stop();
                root.pressConnect();
            }
        }
    }

    // Hides the connecting cover when an attempt ends without any signal reaching here.
    Timer {
        id: loadingPoll
        property int ticks: 0
        interval: 250
        repeat: true
        onTriggered: {
            ticks += 1;
            if (!loading.visible || (ticks >= 2 && !varkel_manager.GetIsConnectingLidar())) {
                loading.visible = false;
                stop();
            }
        }
    }

    // ---- layout ------------------------------------------------------------------------

    ColumnLayout {
        anchors.fill: parent
        spacing: 0

        TopBar {
            id: topBar
            Layout.fillWidth: true
            Layout.preferredHeight: Theme.topBarHeight
            connectType: root.connectType
            connected: root.connected
            hasMaintenanceMenu: root.hasMaintenanceMenu
            canMaintain: root.canMaintain
            lineIdle: root.lineIdle
            onModelSelected: root.selectModel(model)
            onConnectPressed: root.pressConnect()
            onRestartRequested: root.restartLidar()
            onResetRequested: root.askReset()
            onAboutRequested: aboutWindow.open()
            onTlsFileRequested: tlsFileDialog.openFor(which)
        }

        Item {
            id: content
            Layout.fillWidth: true
            Layout.fillHeight: true

            // The small serial sensors (connection types 1 and 2) have their own page.
            Zelto {
                objectName: "zeltoPage"
                anchors.fill: parent
                visible: root.connectType !== 0
                manager: varkel_manager
                selectedModel: root.selectedModel
                onLogRequested: root.printLog(message, type)
                onOpenLogRequested: {
                    logWindow.show();
                    logWindow.raise();
                    logWindow.requestActivate();
                }
            }

            TabWidget {
                id: tabs
                objectName: "pageTabs"
                anchors.fill: parent
                visible: root.connectType === 0
                titles: root.pageTitles.concat(["Monitor", "Log", "Send Command", "Data Stream", "History"])
                onCurrentIndexChanged: root.showPage(currentIndex)

                Repeater {
                    model: root.pageTitles
                    delegate: ModelPage {
                        pageIndex: index
                        title: String(modelData)
                        entries: root.pageEntries.length > index ? root.pageEntries[index] : []
                        manager: varkel_manager
                        snapshot: root.snapshot
                        live: root.liveMap
                        outOfRangeNames: root.outOfRangeNames
                        canWrite: root.canWrite
                        canSave: root.canSave
                        canEditFov: root.canEditFov
                        onCancelRequested: root.cancelPage(page)
                        onSaveRequested: root.savePage(page)
                        onErrorRequested: root.callErrorInfoWindow(message)
                    }
                }

                MonitorPage {
                    monitor: varkel_manager.monitor
                    onErrorRequested: root.callErrorInfoWindow(message)
                }

                LogPage {
                    connectType: root.connectType
                    hasOperationLog: root.hasOperationLog
                    canDownloadLogs: root.canDownloadLogs
                    lineIdle: root.lineIdle
                    activeLogDownload: root.activeLogDownload
                    logLineCount: logWindow.lineCount
                    onOpenLogRequested: {
                        logWindow.show();
                        logWindow.raise();
                        logWindow.requestActivate();
                    }
                    onOperationLogRequested: operationLogDialog.open()
                    onLogRequested: logFolderDialog.openFor(name)
                }

                CommandPage {
                    manager: varkel_manager
                }

                DataStreamPage {
                    model: varkel_manager.streamMonitor
                    connected: root.connected
                }
                HistoryPage {
                    history: varkel_manager.history
                    onBundleRequested: bundleDialog.open()
                }
            }
        }

        StatusBar {
            Layout.fillWidth: true
            Layout.preferredHeight: 28
            connectType: root.connectType
            connected: root.connected
            selectedModel: root.selectedModel
            lastLogText: root.lastLogText
            lastLogType: root.lastLogType
        }
    }

    // Covers the pages only: the top bar stays usable, so a second Connect is refused
    // with a message rather than swallowed.
    LoadingWidget {
        id: loading
        objectName: "loadingWidget"
        x: content.x
        y: content.y
        width: content.width
        height: content.height
    }

    // A resource, not a visual child: among the items Qt would make the embedded view, which
    // is no top-level window, the log window's transient parent and warn at every start.
    resources: LogWindow {
        id: logWindow
        manager: varkel_manager
    }
    // The file dialogs and the About box are made on first use and then kept (the dialogs
    // remember their folder): the desktop's file dialog brings a widget stack and a settings
    // store the window does not need until the user downloads.
    Loader {
        id: operationLogDialog
        active: false
        sourceComponent: DocumentsFileDialog {
            title: "Save the operation log as"
            selectExisting: false
            nameFilters: ["Archives (*.tar)", "All files (*)"]
            onAccepted: root.downloadOperationLog(fileUrl)
        }
        function open() {
            active = true;
            item.open();
        }
    }
    Loader {
        id: bundleDialog
        active: false
        sourceComponent: DocumentsFileDialog {
            objectName: "bundleDialog"
            title: "Save support bundle"
            selectExisting: false
            nameFilters: ["Archives (*.tar.gz)", "All files (*)"]
            onAccepted: varkel_manager.history.saveBundle(fileUrl)
        }
        function open() {
            active = true;
            item.open();
        }
    }
    Loader {
        id: logFolderDialog
        active: false
        sourceComponent: DocumentsFileDialog {
            objectName: "logFolderDialog"
            property string logName: ""
            title: "Folder for the " + logName
            selectFolder: true
            onAccepted: root.downloadLog(fileUrl, logName)
        }
        function openFor(name) {
            active = true;
            item.logName = name;
            item.open();
        }
    }
    Loader {
        id: tlsFileDialog
        active: false
        sourceComponent: DocumentsFileDialog {
            objectName: "tlsFileDialog"
            property string which: "ca"
            title: which === "ca" ? "CA file the sensor's certificate must come from"
                 : which === "cert" ? "Client certificate" : "Client certificate's key"
            nameFilters: ["PEM files (*.pem *.crt *.key)", "All files (*)"]
            onAccepted: {
                if (which === "ca") varkel_manager.tlsCaFile = fileUrl;
                else if (which === "cert") varkel_manager.tlsCertFile = fileUrl;
                else varkel_manager.tlsKeyFile = fileUrl;
            }
        }
        function openFor(which) {
            active = true;
            item.which = which;
            item.open();
        }
    }
    MessageWindow {
        id: messageWindow
        onConfirmed: {
            if (root.pendingAction === "reset") {
                root.pendingAction = "";
                root.resetLidar();
                return;
            }
            if (root.pendingSavePage >= 0) root.runSave(root.pendingSavePage);
            root.pendingSavePage = -1;
        }
    }
    ErrorInfoWindow { id: errorInfoWindow }
    SuccessInfoWindow { id: successInfoWindow }
    Loader {
        id: aboutWindow
        active: false
        sourceComponent: AboutWindow {}
        function open() {
            active = true;
            item.open();
        }
    }
}
