// SPDX-License-Identifier: MIT
// Identifiers our host's plug-in loader relies on.
#pragma once

// Every plug-in the host loads declares an interface id made of this prefix, a dot and
// its class name, e.g. Q_PLUGIN_METADATA(IID "org.e1212bench.host.plugin.PMyPlugin")
// (moc wants the literal there). Anything else is refused by the plug-in manager.
#define E1212_HOST_IID_PREFIX "org.e1212bench.host.plugin"
