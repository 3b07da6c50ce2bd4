// SPDX-License-Identifier: MIT
// Back-end of the maintenance panel.
#pragma once

#include "dabstractpluginbackend.h"

class BeMaintenanceDeviceMoxaIoLogic : public DAbstractPluginBackend
{
    Q_OBJECT
public:
    explicit BeMaintenanceDeviceMoxaIoLogic(QObject *parent = nullptr);
    ~BeMaintenanceDeviceMoxaIoLogic() override;
};
