// SPDX-License-Identifier: MIT
#include "dobject.h"

DObject::DObject(const QString &name, QObject *parent)
    : QObject(parent)
{
    setObjectName(name);
}

DObject::~DObject() = default;
