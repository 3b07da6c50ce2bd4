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
        Layout.preferredWidth: 1
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
        property bool inputGroup
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
        visible: isInput === inputGroup
        Layout.fillWidth: true
        Layout.fillHeight: true
        Layout.preferredWidth: 1
        Layout.preferredHeight: 1
        radius: 6 * root.unit
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
            anchors.leftMargin: 10 * root.unit
            anchors.rightMargin: 10 * root.unit
            spacing: 2 * root.unit

            Item { Layout.fillHeight: true }

            RowLayout {
                Layout.fillWidth: true
                spacing: 8 * root.unit

                // Filled when on, a ring when off; amber while the pulse generator blinks.
                Rectangle {
                    Layout.preferredWidth: 14 * root.unit
                    Layout.preferredHeight: 14 * root.unit
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
                    font.pixelSize: 16 * root.unit
                    font.bold: true
                    elide: Text.ElideRight
                }
                Text {
                    objectName: "state"
                    text: tile.pending ? "…" : !tile.known ? "—" : tile.blinking ? qsTr("blinking")
                          : tile.on ? qsTr("ON") : qsTr("OFF")
                    color: tile.stale ? root.mutedText : tile.lit ? "#ffffff" : "#c9d2dc"
                    font.pixelSize: 16 * root.unit
                    font.bold: true
                }
            }

            Text {
                objectName: "label"
                Layout.fillWidth: true
                // While the module does not answer, the age of what is shown replaces the label.
                text: tile.stale ? qsTr("stale, %1 s old").arg(backend.staleSeconds) : tile.modelData.label
                color: tile.stale ? root.warnColor : tile.lit ? "#e3ecf5" : root.mutedText
                font.pixelSize: 12 * root.unit
                elide: Text.ElideRight
            }

            Item { Layout.fillHeight: true }
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
            anchors.margins: 10 * root.unit
            spacing: 8 * root.unit

            RowLayout {
                Layout.fillWidth: true
                spacing: 8 * root.unit
                Text {
                    text: group.title
                    color: root.textColor
                    font.pixelSize: 16 * root.unit
                    font.bold: true
                }
                Text {
                    Layout.fillWidth: true
                    horizontalAlignment: Text.AlignRight
                    text: group.hint
                    color: root.mutedText
                    font.pixelSize: 12 * root.unit
                    elide: Text.ElideRight
                }
            }

            GridLayout {
                Layout.fillWidth: true
                Layout.fillHeight: true
                columns: 2
                rowSpacing: 6 * root.unit
                columnSpacing: 6 * root.unit
                Repeater {
                    model: backend.channelsModel
                    delegate: ChannelTile {
                        inputGroup: group.inputs
                    }
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

                GridLayout {
                    Layout.fillWidth: true
                    columns: 2
                    columnSpacing: 16 * root.unit
                    rowSpacing: 2 * root.unit
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
                hint: qsTr("live, read only")
                inputs: true
            }
            ChannelGroup {
                objectName: "outputs"
                title: qsTr("Outputs")
                hint: qsTr("click to toggle")
                inputs: false
            }
        }
    }
}
