// Pieces of the switch library's linux side that tests reach directly.
#pragma once

// Speed code for a link speed in Mb/s as sysfs reports it: 0 for 10, 1 for 100,
// 2 for 1000, 4 for 10000, 5 for 2500, 6 for 5000; -1 for any other speed.
int zvtSpeedCode(long mbps);
