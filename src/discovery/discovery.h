// The discovery cycle: walks the bridge forwarding database and keeps the table current.
#pragma once

void __zvt_hostrix_update_from_arp();
