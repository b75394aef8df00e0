// The name map in force, published by the configuration store at every load so that
// the sniffer thread can translate names while the main thread reloads.
#pragma once

#include "platform/ifname_map.h"

void ifnamesPublish(const IfnameMap &map);
