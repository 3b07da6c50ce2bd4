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

    // Everything grows with the window, never shrinks below the 800x480 layout.
    readonly property real unit: Math.max(1, Math.min(width / 800, height / 480))
    readonly property color surface: "#1f252d"
    readonly property color textColor: "#eef1f4"
    readonly property color mutedText: "#a3adb8"
    readonly property color okColor: "#3fb96b"
    readonly property color warnColor: "#f0b429"
    readonly property color errorColor: "#ff6b61"

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
            font.pixelSize: 12 * root.unit
        }
        Text {
            objectName: "value"
            Layout.fillWidth: true
            text: parent.value.length > 0 ? parent.value : "—"
            color: root.textColor
            font.pixelSize: 15 * root.unit
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
        readonly property bool pending: backend.pendingChannels.indexOf(modelData.id) >= 0
        readonly property bool clickable: !isInput && known && !pending
        readonly property color onColor: isInput ? "#1f63b5" : "#1d7a44"

        objectName: "tile_" + modelData.id
        visible: isInput === inputGroup
        Layout.fillWidth: true
        Layout.fillHeight: true
        Layout.minimumHeight: 48 * root.unit
        radius: 6 * root.unit
        color: on ? (mouse.pressed ? Qt.darker(onColor, 1.25) : onColor)
                  : (mouse.pressed ? "#161b21" : "#2a313a")
        border.width: mouse.containsMouse && clickable ? 2 * root.unit : 1
        border.color: mouse.containsMouse && clickable ? "#dfe6ee" : (on ? Qt.lighter(onColor, 1.3) : "#3a434e")
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

                Rectangle {
                    Layout.preferredWidth: 14 * root.unit
                    Layout.preferredHeight: 14 * root.unit
                    radius: width / 2
                    color: tile.on ? "#ffffff" : "transparent"
                    border.width: 2
                    border.color: tile.on ? "#ffffff" : "#6c7784"
                }
                Text {
                    Layout.fillWidth: true
                    text: tile.modelData.id
                    color: root.textColor
                    font.pixelSize: 16 * root.unit
                    font.bold: true
                }
                BusyIndicator {
                    Layout.preferredWidth: 22 * root.unit
                    Layout.preferredHeight: 22 * root.unit
                    running: tile.pending
                    visible: tile.pending
                }
                Text {
                    objectName: "state"
                    text: tile.pending ? qsTr("…") : !tile.known ? "—" : tile.on ? qsTr("ON") : qsTr("OFF")
                    color: tile.on ? "#ffffff" : "#c9d2dc"
                    font.pixelSize: 18 * root.unit
                    font.bold: true
                }
            }

            Text {
                Layout.fillWidth: true
                text: tile.modelData.label
                color: tile.on ? "#e3ecf5" : root.mutedText
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
                columns: root.width >= 1200 ? 4 : 2
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
                        font.pixelSize: 24 * root.unit
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
                        objectName: "firmware"
                        title: qsTr("Firmware")
                        value: backend.version
                    }
                    InfoField {
                        objectName: "mac"
                        title: qsTr("MAC address")
                        value: backend.macAddress
                    }
                    InfoField {
                        objectName: "connection"
                        title: qsTr("Connection")
                        value: backend.connectionPath
                    }
                }

                Text {
                    objectName: "errorText"
                    Layout.fillWidth: true
                    visible: backend.errorText.length > 0
                    text: backend.errorText
                    color: backend.connectionState === BeMaintenanceDeviceMoxaIoLogic.CeCsNotAnswering
                           ? root.warnColor : root.errorColor
                    font.pixelSize: 13 * root.unit
                    wrapMode: Text.Wrap
                    maximumLineCount: 2
                    elide: Text.ElideRight
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
