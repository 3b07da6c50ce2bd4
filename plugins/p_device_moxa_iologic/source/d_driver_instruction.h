// SPDX-License-Identifier: MIT
// What every driver instruction of the device commands has in common.
#pragma once

// The host routes this target to the device's Modbus driver plug-in.
constexpr char c_driverTarget[] = "driver";
// Time-out of every driver instruction, in ms.
constexpr int c_driverTimeoutMs = 3000;
