// SPDX-License-Identifier: MIT
// The host runtime's logging category, "e1212.host".
#pragma once

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcHost)
