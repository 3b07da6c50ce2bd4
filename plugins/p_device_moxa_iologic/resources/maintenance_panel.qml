// SPDX-License-Identifier: MIT
import QtQuick 2.15

Rectangle {
    width: 800
    height: 480
    color: "#1e2228"

    Text {
        anchors.centerIn: parent
        color: "#e6e6e6"
        text: "E1212 maintenance"
    }
}
