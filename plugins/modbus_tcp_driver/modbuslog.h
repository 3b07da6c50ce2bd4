// SPDX-License-Identifier: MIT
// Logging category of the Modbus TCP driver.
#pragma once

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcModbus)
