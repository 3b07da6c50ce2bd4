// SPDX-License-Identifier: MIT
// Logging category of the Modbus TCP driver.
#include "modbuslog.h"

Q_LOGGING_CATEGORY(lcModbus, "e1212.modbus")
