// SPDX-License-Identifier: MIT
// A Qt plug-in of somebody else's application: the host must refuse it.
#pragma once

#include <QObject>

class ForeignPlugin : public QObject
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "com.example.otherapp.ForeignPlugin")
};
