// SPDX-License-Identifier: MIT
// Base of the host's named domain objects.
#pragma once

#include <QObject>

class DObject : public QObject
{
    Q_OBJECT
public:
    // The name becomes the object name, as seen in logs and QDebug output.
    explicit DObject(const QString &name, QObject *parent = nullptr);
    ~DObject() override;
};
