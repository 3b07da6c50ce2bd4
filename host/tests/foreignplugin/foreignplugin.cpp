// SPDX-License-Identifier: MIT
#include "foreignplugin.h"
