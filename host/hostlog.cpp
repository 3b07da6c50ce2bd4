// SPDX-License-Identifier: MIT
#include "hostlog.h"

Q_LOGGING_CATEGORY(lcHost, "e1212.host")
