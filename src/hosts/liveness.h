// Taking hosts offline: the shared disconnect, the ageing pass and port link-down.
#pragma once

#include <cstdint>

#include "hosts/lanhost.h"

void _disConnLanHost(hostEntry *entry, const char *caller, int line);
int invalidAgingOutHostrix();
// 1 when the forwarding engine saw this wired host within the idle timeout.
int isActiveInFcTable(hostEntry *entry);
int removeFcLutList();
// Link-down of the switch port PORT_ID: every online host behind it goes offline.
int disableHostrixByPortIdx(uint8_t portId);
