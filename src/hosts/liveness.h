// Taking hosts offline: the shared disconnect, the ageing pass and port link-down.
#pragma once

#include <cstdint>

#include "hosts/lanhost.h"

void _disConnLanHost(hostEntry *entry, const char *caller, int line);
int invalidAgingOutHostrix();
