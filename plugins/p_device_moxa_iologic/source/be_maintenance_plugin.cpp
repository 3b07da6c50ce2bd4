// SPDX-License-Identifier: MIT
#include "be_maintenance_plugin.h"

BeMaintenanceDeviceMoxaIoLogic::BeMaintenanceDeviceMoxaIoLogic(QObject *parent)
    : DAbstractPluginBackend(parent)
{}

BeMaintenanceDeviceMoxaIoLogic::~BeMaintenanceDeviceMoxaIoLogic() = default;
