// SPDX-License-Identifier: MIT
// An embedded simulator as the rest of e1212ctl sees it. The simulator itself (and Qt
// SerialBus with it) lives in a library loaded only when a device needs one.
#pragma once

#include <QObject>

class CtlSimulator : public QObject
{
public:
    using QObject::QObject;

    // The loopback port it serves on.
    virtual quint16 port() const = 0;
    // Sets digital input DI`channel` (0-7).
    virtual void setInput(int channel, bool on) = 0;
};
