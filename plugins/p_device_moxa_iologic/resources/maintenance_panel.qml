// SPDX-License-Identifier: MIT
// The E1212 maintenance panel: which module, whether it answers, live inputs, clickable outputs.
import QtQuick 2.15
import QtQuick.Layouts 1.15
import QtQuick.Controls 2.15
import PlgLibDeviceMoxaIoLogic 1.0

Rectangle {
    id: root
    width: 800
    height: 480
    color: "#14181d"

    // The layout is drawn for 800x480 and scaled as a whole, fonts and tiles together, by the
    // factor that fits the window: nothing overlaps or is cut from 640x400 to 3840x2160.
    readonly property real unit: Math.min(width / 800, height / 480)
    // Colours: text at least 4.5:1 and state indicators at least 3:1 against what they sit on.
    readonly property color surface: "#1f252d"
    readonly property color tileOff: "#2a313a"
    readonly property color tileStale: "#23282e"
    readonly property color textColor: "#eef1f4"
    readonly property color mutedText: "#a3adb8"
    readonly property color ringColor: "#8d98a5"
    readonly property color okColor: "#3fb96b"
    readonly property color warnColor: "#f0b429"
    readonly property color errorColor: "#ff6b61"
    readonly property color blinkColor: "#ffd166"
    readonly property color stripColor: "#161b21"
    readonly property color gridColor: "#2c343e"
    readonly property color inputTrace: "#7cb8ff"
    readonly property color outputTrace: "#5fd48a"

    // The timelines' clock: each tick moves their time axis and drops what left it.
    property int timelineTick: 0
    Timer {
        interval: 250
        running: true
        repeat: true
        onTriggered: {
            backend.trimHistory(Date.now())
            ++root.timelineTick
        }
    }

    BeMaintenanceDeviceMoxaIoLogic {
        id: backend
        objectName: "backend"
        device: typeof maintenanceDevice !== "undefined" ? maintenanceDevice : null
        connectionPath: typeof maintenanceConnectionPath !== "undefined" ? maintenanceConnectionPath : ""
        pollIntervalMs: typeof maintenancePollIntervalMs !== "undefined" ? maintenancePollIntervalMs : 500
    }

    Component.onCompleted: backend.initBackend()

    readonly property var stateInfo: {
        switch (backend.connectionState) {
        case BeMaintenanceDeviceMoxaIoLogic.CeCsConnected:
            return { text: qsTr("Connected"), color: okColor };
        case BeMaintenanceDeviceMoxaIoLogic.CeCsConnecting:
            return { text: qsTr("Connecting…"), color: mutedText };
        case BeMaintenanceDeviceMoxaIoLogic.CeCsNotAnswering:
            return { text: qsTr("Not answering"), color: warnColor };
        case BeMaintenanceDeviceMoxaIoLogic.CeCsError:
            return { text: qsTr("Error"), color: errorColor };
        default:
            return { text: qsTr("No device"), color: mutedText };
        }
    }

    component InfoField: ColumnLayout {
        property string title
        property string value
        spacing: 0
        Layout.fillWidth: true
        Text {
            text: parent.title
            color: root.mutedText
            font.pixelSize: 11 * root.unit
        }
        Text {
            objectName: "value"
            Layout.fillWidth: true
            text: parent.value.length > 0 ? parent.value : "—"
            color: root.textColor
            font.pixelSize: 14 * root.unit
            elide: Text.ElideRight
        }
    }

    component ChannelTile: Rectangle {
        id: tile
        required property var modelData
        readonly property bool isInput: modelData.type === DMoxaChannel.CeCtBinIn
                                        || modelData.type === DMoxaChannel.CeCtAnaIn
        readonly property bool known: modelData.value !== undefined
        readonly property bool on: known && modelData.value === true
        readonly property bool stale: backend.stale && known
        readonly property bool pending: backend.pendingChannels.indexOf(modelData.id) >= 0
        readonly property bool blinking: backend.blinkingChannels.indexOf(modelData.id) >= 0
        readonly property bool lit: (on || blinking) && !stale
        readonly property bool clickable: !isInput && known && !pending
        readonly property color onColor: isInput ? "#1f63b5" : "#17663a"

        objectName: "tile_" + modelData.id
        Layout.preferredWidth: 156 * root.unit
        Layout.fillHeight: true
        radius: 5 * root.unit
        color: stale ? root.tileStale
                     : lit ? (mouse.pressed ? Qt.darker(onColor, 1.25) : onColor)
                           : (mouse.pressed ? "#161b21" : root.tileOff)
        border.width: (mouse.containsMouse && clickable ? 2 : 1) * Math.max(1, root.unit)
        border.color: mouse.containsMouse && clickable ? "#dfe6ee" : (lit ? Qt.lighter(onColor, 1.3) : "#3a434e")
        scale: mouse.pressed && clickable ? 0.97 : 1

        MouseArea {
            id: mouse
            anchors.fill: parent
            enabled: !tile.isInput
            hoverEnabled: true
            cursorShape: tile.clickable ? Qt.PointingHandCursor : Qt.ArrowCursor
            onClicked: backend.clickedOnChannel(tile.modelData.id)
        }

        ColumnLayout {
            anchors.fill: parent
            anchors.leftMargin: 8 * root.unit
            anchors.rightMargin: 8 * root.unit
            spacing: 0

            Item { Layout.fillHeight: true }

            RowLayout {
                Layout.fillWidth: true
                spacing: 6 * root.unit

                // Filled when on, a ring when off; amber while the pulse generator blinks.
                Rectangle {
                    Layout.preferredWidth: 12 * root.unit
                    Layout.preferredHeight: 12 * root.unit
                    radius: width / 2
                    color: tile.blinking && !tile.stale ? root.blinkColor
                           : tile.on ? (tile.stale ? root.ringColor : "#ffffff") : "transparent"
                    border.width: 2 * root.unit
                    border.color: tile.blinking && !tile.stale ? root.blinkColor
                                  : tile.on && !tile.stale ? "#ffffff" : root.ringColor
                }
                Text {
                    Layout.fillWidth: true
                    text: tile.modelData.id
                    color: tile.stale ? root.mutedText : root.textColor
                    font.pixelSize: 14 * root.unit
                    font.bold: true
                    elide: Text.ElideRight
                }
                Text {
                    objectName: "state"
                    text: tile.pending ? "…" : !tile.known ? "—" : tile.blinking ? qsTr("blinking")
                          : tile.on ? qsTr("ON") : qsTr("OFF")
                    color: tile.stale ? root.mutedText : tile.lit ? "#ffffff" : "#c9d2dc"
                    font.pixelSize: 14 * root.unit
                    font.bold: true
                }
            }

            Text {
                objectName: "label"
                Layout.fillWidth: true
                // While the module does not answer, the age of what is shown replaces the label.
                text: tile.stale ? qsTr("stale, %1 s old").arg(backend.staleSeconds) : tile.modelData.label
                color: tile.stale ? root.warnColor : tile.lit ? "#e3ecf5" : root.mutedText
                font.pixelSize: 11 * root.unit
                elide: Text.ElideRight
            }

            Item { Layout.fillHeight: true }
        }
    }

    // A channel's last historySeconds as a logic analyser shows them: the trace high while the
    // channel is on, the present at the right edge, a grid line every 10 s. Nothing is drawn
    // before the first value seen; the trace greys while the module does not answer.
    component Timeline: Canvas {
        id: strip
        required property string channelId
        property bool isInput
        readonly property color traceColor: backend.stale ? root.ringColor : isInput ? root.inputTrace : root.outputTrace

        objectName: "timeline_" + channelId
        Layout.fillWidth: true
        Layout.fillHeight: true
        renderStrategy: Canvas.Immediate

        onPaint: {
            // Drawn whole each time: at most historyLength changes on a strip.
            var g = getContext("2d")
            g.reset()
            var w = width, h = height
            var spanMs = backend.historySeconds * 1000
            var now = Date.now()
            g.fillStyle = root.stripColor
            g.fillRect(0, 0, w, h)
            g.strokeStyle = root.gridColor
            g.lineWidth = 1
            g.beginPath()
            for (var s = 10; s < backend.historySeconds; s += 10) {
                var gx = Math.round(w - s * 1000 * w / spanMs) + 0.5
                g.moveTo(gx, 0)
                g.lineTo(gx, h)
            }
            g.stroke()

            var points = backend.history(channelId)
            var x = function (t) { return Math.max(0, Math.min(w, w * (1 - (now - t) / spanMs))) }
            var line = Math.max(1, 2 * root.unit)
            var high = Math.round(h * 0.2), low = Math.round(h * 0.8)
            g.fillStyle = Qt.rgba(traceColor.r, traceColor.g, traceColor.b, 0.3)
            for (var i = 0; i < points.length; ++i) {
                var x0 = x(points[i].time), x1 = i + 1 < points.length ? x(points[i + 1].time) : w
                if (points[i].value && x1 > x0)
                    g.fillRect(x0, high, x1 - x0, low - high)
            }
            g.strokeStyle = traceColor
            g.lineWidth = line
            g.beginPath()
            for (var i = 0; i < points.length; ++i) {
                var y = points[i].value ? high : low
                var x0 = x(points[i].time), x1 = i + 1 < points.length ? x(points[i + 1].time) : w
                if (i === 0)
                    g.moveTo(x0, y)
                else
                    g.lineTo(x0, y)
                g.lineTo(x1, y)
            }
            g.stroke()
        }

        Connections {
            target: backend
            function onHistoryChanged(channelId) {
                if (channelId === strip.channelId)
                    strip.requestPaint()
            }
            function onStaleChanged() { strip.requestPaint() }
        }
        Connections {
            target: root
            function onTimelineTickChanged() { strip.requestPaint() }
        }
    }

    component ChannelRow: RowLayout {
        id: row
        required property var modelData
        property bool inputGroup
        readonly property bool isInput: modelData.type === DMoxaChannel.CeCtBinIn
                                        || modelData.type === DMoxaChannel.CeCtAnaIn
        visible: isInput === inputGroup
        Layout.fillWidth: true
        Layout.fillHeight: true
        Layout.preferredHeight: 1
        spacing: 6 * root.unit
        ChannelTile {
            modelData: row.modelData
        }
        Timeline {
            channelId: row.modelData.id
            isInput: row.isInput
        }
    }

    component ChannelGroup: Rectangle {
        id: group
        property string title
        property string hint
        property bool inputs
        Layout.fillWidth: true
        Layout.fillHeight: true
        Layout.preferredWidth: 1
        radius: 8 * root.unit
        color: root.surface

        ColumnLayout {
            anchors.fill: parent
            anchors.margins: 8 * root.unit
            spacing: 4 * root.unit

            RowLayout {
                Layout.fillWidth: true
                spacing: 8 * root.unit
                Text {
                    text: group.title
                    color: root.textColor
                    font.pixelSize: 15 * root.unit
                    font.bold: true
                }
                Text {
                    Layout.fillWidth: true
                    horizontalAlignment: Text.AlignRight
                    text: group.hint
                    color: root.mutedText
                    font.pixelSize: 11 * root.unit
                    elide: Text.ElideRight
                }
            }

            Repeater {
                model: backend.channelsModel
                delegate: ChannelRow {
                    inputGroup: group.inputs
                }
            }
        }
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 10 * root.unit
        spacing: 8 * root.unit

        // Header: which module, over which connection, and whether it answers.
        Rectangle {
            Layout.fillWidth: true
            Layout.preferredHeight: header.implicitHeight + 16 * root.unit
            radius: 8 * root.unit
            color: root.surface

            ColumnLayout {
                id: header
                anchors.fill: parent
                anchors.margins: 8 * root.unit
                anchors.leftMargin: 12 * root.unit
                anchors.rightMargin: 12 * root.unit
                spacing: 4 * root.unit

                RowLayout {
                    Layout.fillWidth: true
                    spacing: 10 * root.unit
                    Text {
                        objectName: "modelName"
                        Layout.fillWidth: true
                        text: backend.modelName.length > 0 ? backend.modelName : qsTr("E1212 module")
                        color: root.textColor
                        font.pixelSize: 22 * root.unit
                        font.bold: true
                        elide: Text.ElideRight
                    }
                    Rectangle {
                        Layout.preferredWidth: 12 * root.unit
                        Layout.preferredHeight: 12 * root.unit
                        radius: width / 2
                        color: root.stateInfo.color
                    }
                    Text {
                        objectName: "connectionState"
                        text: root.stateInfo.text
                        color: root.stateInfo.color
                        font.pixelSize: 16 * root.unit
                        font.bold: true
                    }
                }

                RowLayout {
                    Layout.fillWidth: true
                    spacing: 16 * root.unit
                    InfoField {
                        objectName: "reference"
                        title: qsTr("Device")
                        value: backend.reference
                    }
                    InfoField {
                        objectName: "connection"
                        title: qsTr("Address")
                        value: backend.connectionPath
                    }
                    InfoField {
                        objectName: "firmware"
                        title: qsTr("Firmware")
                        value: backend.version
                    }
                    InfoField {
                        objectName: "mac"
                        title: qsTr("MAC address")
                        value: backend.macAddress
                    }
                }

                // The failure in plain words; the host's full text on hover.
                Text {
                    id: errorLine
                    objectName: "errorText"
                    Layout.fillWidth: true
                    visible: backend.errorText.length > 0
                    text: backend.errorText
                    color: backend.connectionState === BeMaintenanceDeviceMoxaIoLogic.CeCsNotAnswering
                           ? root.warnColor : root.errorColor
                    font.pixelSize: 13 * root.unit
                    elide: Text.ElideRight

                    MouseArea {
                        id: errorHover
                        anchors.fill: parent
                        hoverEnabled: true
                    }
                    ToolTip.visible: errorHover.containsMouse && backend.errorDetails.length > 0
                    ToolTip.text: backend.errorDetails
                }
            }
        }

        RowLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            spacing: 8 * root.unit
            ChannelGroup {
                objectName: "inputs"
                title: qsTr("Inputs")
                hint: qsTr("live, read only · last %1 s").arg(backend.historySeconds)
                inputs: true
            }
            ChannelGroup {
                objectName: "outputs"
                title: qsTr("Outputs")
                hint: qsTr("click to toggle · last %1 s").arg(backend.historySeconds)
                inputs: false
            }
        }
    }
}
